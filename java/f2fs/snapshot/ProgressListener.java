// SPDX-License-Identifier: Apache-2.0
package f2fs.snapshot;

/** Receives the progress of a call. */
@FunctionalInterface
public interface ProgressListener {
    /**
     * Called at each change of phase or pass, and in between about every tenth of a second, on the
     * thread of the call.
     *
     * <p>An exception or error thrown here cancels the call and is what the call throws. A call for
     * the same store or sources made from here fails with {@link ErrorCode#BUSY}.
     *
     * @param progress what the call is doing
     */
    void onProgress(Progress progress);
}
