// SPDX-License-Identifier: Apache-2.0
package f2fs.snapshot;

import java.io.IOException;
import java.nio.file.Path;

/**
 * A snapshot in use. Closing it destroys it, unless {@link #keep} has been called or it came from
 * {@link SnapshotStore#openSnapshot}.
 *
 * <p>A snapshot that is never closed stays in its store, as after {@link #keep}. The store can be
 * closed before its snapshots. All functions can be called from any thread.
 */
public final class Snapshot implements AutoCloseable {
    private final StoreHandle store;
    private final SnapshotInfo info;
    private boolean kept;
    private boolean closed;

    Snapshot(StoreHandle store, SnapshotInfo info, boolean kept) {
        this.store = store.retain();
        this.info = info;
        this.kept = kept;
    }

    /**
     * The snapshot's name in the store.
     *
     * @return the name, also when closed
     */
    public String name() {
        return info.name();
    }

    /**
     * What is known about the snapshot.
     *
     * @return the same object each time, also when closed
     */
    public SnapshotInfo info() {
        return info;
    }

    /**
     * The directory that holds the trees. A source {@code /a/b} is its subdirectory {@code a/b}.
     *
     * @return the path, absolute
     * @throws IllegalStateException if the snapshot is closed
     */
    public synchronized Path path() {
        requireOpen();
        return info.path();
    }

    /**
     * Where a source, or a path below one, is in the snapshot. The path in the snapshot need not
     * exist.
     *
     * @param source a path in the sources. If none of them holds it, its symbolic links are
     *     resolved
     * @return the path in the snapshot, absolute
     * @throws IllegalArgumentException if {@code source} lies in no source
     * @throws IllegalStateException if the snapshot is closed
     */
    public Path pathOf(Path source) {
        Path top = path();
        Path absolute = source.toAbsolutePath().normalize();
        if (!isInSource(absolute)) {
            try {
                absolute = source.toRealPath();
            } catch (IOException exception) {
                throw new IllegalArgumentException(source + " is in no source", exception);
            }
        }
        if (!isInSource(absolute)) {
            throw new IllegalArgumentException(source + " is in no source");
        }
        return top.resolve(absolute.getRoot().relativize(absolute));
    }

    private boolean isInSource(Path path) {
        return info.sources().stream().anyMatch(path::startsWith);
    }

    /**
     * Leaves the snapshot in the store when it is closed.
     *
     * @throws IllegalStateException if the snapshot is closed
     */
    public synchronized void keep() {
        requireOpen();
        kept = true;
    }

    /**
     * Tells whether closing leaves the snapshot in the store.
     *
     * @return true after {@link #keep}, and always for one from {@link SnapshotStore#openSnapshot}
     */
    public synchronized boolean isKept() {
        return kept;
    }

    /**
     * Destroys the snapshot, unless it is kept. Does nothing if it is closed already, or if
     * somebody else has destroyed it meanwhile. Another snapshot that has its name now is not
     * touched.
     *
     * @throws SnapshotException if it cannot be destroyed: {@link ErrorCode#BUSY} while somebody
     *     verifies or restores it, or changes the store ({@link SnapshotStore#setBusyTimeout});
     *     {@link ErrorCode#SYSTEM}. The object is closed then, but the snapshot stays in the store;
     *     {@link SnapshotStore#destroy} can remove it later
     */
    @Override
    public void close() throws SnapshotException {
        synchronized (this) {
            if (closed) {
                return;
            }
            closed = true;
        }
        try {
            if (!isKept()) {
                destroy();
            }
        } finally {
            store.release();
        }
    }

    private void destroy() throws SnapshotException {
        byte[] name = FileNames.name(info.name());
        try {
            store.callWhenFree(null, address -> {
                if (Native.show(address, name).created().equals(info.created())) {
                    Native.destroy(address, name, null, null);
                }
                return null;
            });
        } catch (SnapshotException exception) {
            if (exception.code() != ErrorCode.NOT_FOUND) {
                throw exception;
            }
        }
    }

    private void requireOpen() {
        if (closed) {
            throw new IllegalStateException("the snapshot is closed");
        }
    }
}
