// SPDX-License-Identifier: Apache-2.0
package f2fs.snapshot;

import java.lang.ref.PhantomReference;
import java.lang.ref.ReferenceQueue;
import java.time.Duration;
import java.util.Set;
import java.util.concurrent.ConcurrentHashMap;

/**
 * A native store. It is freed when its owner, the snapshots of it and the calls that run have all
 * released it, so that no call ever meets a freed one.
 *
 * <p>One that was forgotten without a release is freed by the next open, after the garbage collector
 * has found it. java.lang.ref.Cleaner would do this at once, on a thread of its own, but Android has
 * it from API level 33 on only.
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

    /** Calls again while another call holds the store or a source, for the time that was set. */
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
