// SPDX-License-Identifier: Apache-2.0
package f2fs.snapshot;

/**
 * The functions of libf2fs_snapshot_java.so, one for each of the manager's C interface. Numbers in
 * options are as there. A listener, token, name, helper or list of restored paths can be null.
 */
final class Native {
    static {
        System.loadLibrary("f2fs_snapshot_java");
    }

    private Native() {}

    static native byte[] version();

    /** Returns the address of the store, which {@link #close} takes once. */
    static native long open(byte[] path, boolean create) throws SnapshotException;

    static native void close(long store);

    static native byte[] path(long store);

    static native Report check(long store, byte[][] sources, ProgressListener progress,
            CancelToken cancel) throws SnapshotException;

    static native SnapshotInfo create(long store, byte[][] sources, byte[] name, boolean strict,
            boolean digests, int attempts, long timeLimit, byte[] helper,
            ProgressListener progress, CancelToken cancel) throws SnapshotException;

    static native SnapshotEntry[] list(long store) throws SnapshotException;

    static native SnapshotInfo show(long store, byte[] name) throws SnapshotException;

    static native long diskUsage(long store, byte[] name) throws SnapshotException;

    static native Report verify(long store, byte[] name, ProgressListener progress,
            CancelToken cancel) throws SnapshotException;

    static native Report restore(long store, byte[] name, byte[] destination, byte[][] paths,
            boolean overwrite, boolean dryRun, ProgressListener progress, CancelToken cancel)
            throws SnapshotException;

    static native void destroy(long store, byte[] name, ProgressListener progress,
            CancelToken cancel) throws SnapshotException;

    static native PruneEntry[] prune(long store, int last, int hourly, int daily, int weekly,
            int monthly, int yearly, long within, boolean dryRun, ProgressListener progress,
            CancelToken cancel) throws SnapshotException;
}
