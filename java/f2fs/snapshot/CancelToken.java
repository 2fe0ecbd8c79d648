// SPDX-License-Identifier: Apache-2.0
package f2fs.snapshot;

/**
 * Ends calls from another thread.
 *
 * <p>A call that has the token checks it about every tenth of a second, and before each step that
 * cannot be undone. If the token is cancelled, the call fails with {@link ErrorCode#CANCELLED}. A
 * token stays cancelled.
 */
public final class CancelToken {
    private volatile boolean cancelled;

    /** Makes a token that is not cancelled. */
    public CancelToken() {}

    /** Ends the calls that have this token, now and in future. Any thread can call it. */
    public void cancel() {
        cancelled = true;
    }

    /**
     * Tells whether {@link #cancel} has been called.
     *
     * @return true from then on
     */
    public boolean isCancelled() {
        return cancelled;
    }
}
