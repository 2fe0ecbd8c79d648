// SPDX-License-Identifier: Apache-2.0
package f2fs.snapshot;

import java.lang.ref.PhantomReference;
import java.lang.ref.ReferenceQueue;
import java.time.Duration;
import java.util.Set;
import java.util.concurrent.ConcurrentHashMap;

/**
 * A native store. It is freed when its owner, its snapshots and the running calls have all released
 * it, so that no call uses a freed store.
 *
 * <p>If a handle is never released, the next open frees the store, after the garbage collector has
 * found the handle. java.lang.ref.Cleaner would do this at once, on a thread of its own, but
 * Android has it only from API level 33 on.
 */
final class StoreHandle {
    private static final long BUSY_INTERVAL_MS = 50;
    private static final ReferenceQueue<StoreHandle> FORGOTTEN = new ReferenceQueue<>();
    private static final Set<Address> OPEN = ConcurrentHashMap.newKeySet();

    interface Operation<T> {
        T on(long store) throws SnapshotException;
    }

    private static final class Address extends PhantomReference<StoreHandle> {
        private final long store;

        Address(StoreHandle handle, long store) {
            super(handle, FORGOTTEN);
            this.store = store;
        }

        void free() {
            if (OPEN.remove(this)) {
                Native.close(store);
            }
        }
    }

    private final Address address;
    private int users = 1;
    private volatile long busyTimeout;

    StoreHandle(byte[] path, boolean create) throws SnapshotException {
        for (Object found = FORGOTTEN.poll(); found != null; found = FORGOTTEN.poll()) {
            ((Address) found).free();
        }
        address = new Address(this, Native.open(path, create));
        OPEN.add(address);
    }

    /** Each retain needs a release. */
    synchronized StoreHandle retain() {
        if (users == 0) {
            throw new IllegalStateException("the store is closed");
        }
        users++;
        return this;
    }

    synchronized void release() {
        if (--users == 0) {
            address.free();
        }
    }

    void setBusyTimeout(Duration timeout) {
        Limits.seconds("the busy timeout", timeout, 0, Limits.UINT32_MAX);
        busyTimeout = timeout.toNanos();
    }

    <T> T call(Operation<T> operation) throws SnapshotException {
        retain();
        try {
            return operation.on(address.store);
        } finally {
            release();
        }
    }

    /** Repeats a call that is BUSY until the busy timeout has passed. */
    <T> T callWhenFree(CancelToken cancel, Operation<T> operation) throws SnapshotException {
        long begin = System.nanoTime();
        while (true) {
            try {
                return call(operation);
            } catch (SnapshotException exception) {
                if (exception.code() != ErrorCode.BUSY
                        || System.nanoTime() - begin >= busyTimeout || !pause()) {
                    throw exception;
                }
            }
            if (cancel != null && cancel.isCancelled()) {
                throw new SnapshotException(ErrorCode.CANCELLED, 0, new byte[0], "cancelled");
            }
        }
    }

    /** Returns false if the thread is interrupted. */
    private static boolean pause() {
        try {
            Thread.sleep(BUSY_INTERVAL_MS);
            return true;
        } catch (InterruptedException exception) {
            Thread.currentThread().interrupt();
            return false;
        }
    }
}
