// SPDX-License-Identifier: Apache-2.0
package f2fs.snapshot;

import java.nio.file.Path;
import java.time.Duration;
import java.util.Arrays;
import java.util.Collections;
import java.util.List;

/**
 * A directory that keeps snapshots under names.
 *
 * <p>Only its owner can enter it. A name that exists in it is a complete snapshot: a snapshot that
 * is being made, or whose creation was interrupted, has no name. Snapshots can be made of
 * directories on the store's volume.
 *
 * <p>All functions can be called from any thread, also at the same time. Two calls that change one
 * store, or snapshot one source, exclude each other, also across processes: see {@link
 * #setBusyTimeout}. Interrupting a thread does not end its call; a {@link CancelToken} does.
 *
 * <p>After {@link #close} every function throws {@link IllegalStateException}.
 */
public final class SnapshotStore implements AutoCloseable {
    private static final CreateOptions CREATE_DEFAULTS = CreateOptions.builder().build();
    private static final RestoreOptions RESTORE_DEFAULTS = RestoreOptions.builder().build();

    private final StoreHandle handle;
    private boolean closed;

    private SnapshotStore(Path directory, boolean create) throws SnapshotException {
        handle = new StoreHandle(FileNames.bytes(directory), create);
    }

    /**
     * Opens the store in a directory. It must belong to the effective user and deny all permissions
     * to group and others (mode 0700). Keep it where nobody else can rename the directories above
     * it.
     *
     * @param directory the directory
     * @return the store, to be closed
     * @throws SnapshotException {@link ErrorCode#STORE} (not a directory, or not safe as above),
     *     {@link ErrorCode#SYSTEM}
     */
    public static SnapshotStore open(Path directory) throws SnapshotException {
        return new SnapshotStore(directory, false);
    }

    /**
     * Opens the store in a directory, which is made (0700) if it is missing.
     *
     * @param directory the directory; the one above it must exist
     * @return the store, to be closed
     * @throws SnapshotException as {@link #open}
     */
    public static SnapshotStore openOrCreate(Path directory) throws SnapshotException {
        return new SnapshotStore(directory, true);
    }

    /**
     * The version of the native snapshot manager.
     *
     * @return a version like {@code 1.0.0}
     */
    public static String version() {
        return FileNames.text(Native.version());
    }

    /**
     * The store's directory.
     *
     * @return the path, absolute and without symbolic links
     */
    public Path path() {
        StoreHandle store = requireOpen();
        try {
            return FileNames.path(store.call(Native::path));
        } catch (SnapshotException impossible) {
            throw new IllegalStateException(impossible);
        }
    }

    /**
     * Sets how long {@link #create}, {@link #destroy}, {@link #prune}, {@link #verify}, {@link
     * #restore} and {@link Snapshot#close} wait for another call that holds the store, a source or
     * the snapshot. After that time they fail with {@link ErrorCode#BUSY}. They try about 20 times
     * a second, and stop waiting when the thread is interrupted or the call is cancelled.
     *
     * @param timeout the longest wait; zero, the default: fail at once
     */
    public void setBusyTimeout(Duration timeout) {
        requireOpen().setBusyTimeout(timeout);
    }

    /**
     * Snapshots directories with the default options.
     *
     * @param sources see {@link #create(CreateOptions, Path...)}
     * @return the snapshot, which is destroyed when it is closed
     * @throws SnapshotException see {@link #create(CreateOptions, Path...)}
     */
    public Snapshot create(Path... sources) throws SnapshotException {
        return create(CREATE_DEFAULTS, sources);
    }

    /**
     * Snapshots directories with everything below them.
     *
     * <p>If names change meanwhile, the snapshot is made again, {@link
     * CreateOptions.Builder#attempts} times in all. If names change in the last attempt too, {@link
     * SnapshotInfo#isWhole} is false and {@link SnapshotInfo#findings} names what changed.
     *
     * <p>When the call returns, the snapshot is on the disk. A failure or cancel removes what was
     * made, and no older snapshot is touched.
     *
     * @param options the options of the call
     * @param sources directories, at least one. None may be given twice, lie below another, contain
     *     the store or lie in it, have a file system mounted below it, or be on another volume than
     *     the store. Paths of store, name and source together are limited to 235 bytes
     * @return the snapshot, which is destroyed when it is closed, unless {@link Snapshot#keep} is
     *     called
     * @throws SnapshotException {@link ErrorCode#ARGUMENT}, {@link ErrorCode#NAME}, {@link
     *     ErrorCode#EXISTS}, {@link ErrorCode#SOURCE}, {@link ErrorCode#BUSY}, {@link
     *     ErrorCode#UNSUPPORTED}, {@link ErrorCode#CANCELLED}, {@link ErrorCode#TIMEOUT}, {@link
     *     ErrorCode#LIBRARY}, {@link ErrorCode#NOT_WHOLE}, {@link ErrorCode#SYSTEM}
     */
    public Snapshot create(CreateOptions options, Path... sources) throws SnapshotException {
        StoreHandle store = requireOpen();
        byte[][] paths = FileNames.bytes(sources);
        byte[] name = options.name == null ? null : FileNames.name(options.name);
        byte[] helper = options.helper == null ? null : FileNames.bytes(options.helper);
        return store.callWhenFree(options.cancel,
                address -> new Snapshot(store,
                        Native.create(address, paths, name, options.strict, options.digests,
                                options.attempts, options.timeLimit, helper, options.progress,
                                options.cancel),
                        false));
    }

    /**
     * Reports what would make {@link #create} fail, or would not be covered by it. Changes nothing:
     * files are opened for reading and writing, and closed again.
     *
     * @param sources as for create
     * @return the findings, of severity {@link Finding.Severity#FAILS} or {@link
     *     Finding.Severity#UNCOVERED}
     * @throws SnapshotException as create for sources that it refuses as a whole
     */
    public Report check(Path... sources) throws SnapshotException {
        return check(null, null, sources);
    }

    /**
     * As {@link #check(Path...)}.
     *
     * @param progress a listener, or null
     * @param cancel a token, or null
     * @param sources as for create
     * @return the findings
     * @throws SnapshotException also {@link ErrorCode#CANCELLED}
     */
    public Report check(ProgressListener progress, CancelToken cancel, Path... sources)
            throws SnapshotException {
        byte[][] paths = FileNames.bytes(sources);
        return requireOpen().call(address -> Native.check(address, paths, progress, cancel));
    }

    /**
     * Lists the snapshots. A snapshot that is made or destroyed meanwhile may be missing.
     *
     * @return the snapshots, the oldest first; damaged ones at the end, by name
     * @throws SnapshotException {@link ErrorCode#SYSTEM}
     */
    public List<SnapshotEntry> list() throws SnapshotException {
        return listOf(requireOpen().call(Native::list));
    }

    /**
     * Opens a snapshot of the store. Closing it does not destroy it.
     *
     * @param name its name
     * @return the snapshot
     * @throws SnapshotException {@link ErrorCode#NAME}, {@link ErrorCode#NOT_FOUND}, {@link
     *     ErrorCode#FORMAT}, {@link ErrorCode#SYSTEM}
     */
    public Snapshot openSnapshot(String name) throws SnapshotException {
        StoreHandle store = requireOpen();
        byte[] bytes = FileNames.name(name);
        return store.call(
                address -> new Snapshot(store, Native.show(address, bytes), true));
    }

    /**
     * How much space the files of a snapshot take, as the file system accounts them. Blocks that
     * are shared with other files count in full.
     *
     * @param name the snapshot's name
     * @return bytes on the disk
     * @throws SnapshotException as {@link #openSnapshot}
     */
    public long diskUsage(String name) throws SnapshotException {
        byte[] bytes = FileNames.name(name);
        return requireOpen().call(address -> Native.diskUsage(address, bytes));
    }

    /**
     * Compares a snapshot with what was recorded when it was made: names, types, link texts, sizes,
     * and contents if {@link CreateOptions.Builder#digests} was set.
     *
     * @param name the snapshot's name
     * @return each difference; no finding: intact
     * @throws SnapshotException as {@link #openSnapshot}; {@link ErrorCode#BUSY} (it is being
     *     destroyed)
     */
    public Report verify(String name) throws SnapshotException {
        return verify(name, null, null);
    }

    /**
     * As {@link #verify(String)}.
     *
     * @param name the snapshot's name
     * @param progress a listener, or null
     * @param cancel a token, or null
     * @return each difference
     * @throws SnapshotException also {@link ErrorCode#CANCELLED}
     */
    public Report verify(String name, ProgressListener progress, CancelToken cancel)
            throws SnapshotException {
        byte[] bytes = FileNames.name(name);
        return requireOpen().callWhenFree(
                cancel, address -> Native.verify(address, bytes, progress, cancel));
    }

    /**
     * Restores all of a snapshot into an empty or missing directory.
     *
     * @param name the snapshot's name
     * @param destination see {@link #restore(String, Path, RestoreOptions)}
     * @return see {@link #restore(String, Path, RestoreOptions)}
     * @throws SnapshotException see {@link #restore(String, Path, RestoreOptions)}
     */
    public Report restore(String name, Path destination) throws SnapshotException {
        return restore(name, destination, RESTORE_DEFAULTS);
    }

    /**
     * Copies a snapshot's trees into a directory: source {@code /a/b} to its subdirectory {@code
     * a/b}, with modes, owners, times, extended attributes and links. Writes through no symbolic
     * link.
     *
     * <p>Without {@link RestoreOptions.Builder#overwrite}, a failure or cancel removes all that was
     * made. With it, entries restored so far stay; no file is left half written under its name.
     *
     * @param name the snapshot's name
     * @param destination made (0700) if missing; the directory above it must exist. Not in the
     *     store
     * @param options the options of the call
     * @return what could not be restored ({@link Finding.Severity#FAILS}) or set, and counts
     * @throws SnapshotException {@link ErrorCode#ARGUMENT}, {@link ErrorCode#NAME}, {@link
     *     ErrorCode#NOT_FOUND} (the snapshot, or one of the paths in it), {@link ErrorCode#FORMAT},
     *     {@link ErrorCode#EXISTS}, {@link ErrorCode#BUSY}, {@link ErrorCode#CANCELLED}, {@link
     *     ErrorCode#SYSTEM}
     */
    public Report restore(String name, Path destination, RestoreOptions options)
            throws SnapshotException {
        byte[] bytes = FileNames.name(name);
        byte[] to = FileNames.bytes(destination);
        byte[][] paths = options.paths.length == 0 ? null : FileNames.bytes(options.paths);
        return requireOpen().callWhenFree(options.cancel,
                address -> Native.restore(address, bytes, to, paths, options.overwrite,
                        options.dryRun, options.progress, options.cancel));
    }

    /**
     * Destroys a snapshot: first the name, then the data. A damaged snapshot can be destroyed too.
     *
     * @param name the snapshot's name
     * @throws SnapshotException {@link ErrorCode#NAME}, {@link ErrorCode#NOT_FOUND}, {@link
     *     ErrorCode#BUSY} (also while somebody verifies or restores it, or
     *     {@code f2fs_snapshotctl run} works on it), {@link ErrorCode#SYSTEM}
     */
    public void destroy(String name) throws SnapshotException {
        destroy(name, null, null);
    }

    /**
     * As {@link #destroy(String)}.
     *
     * @param name the snapshot's name
     * @param progress a listener, or null
     * @param cancel a token, or null; checked once, before anything is removed
     * @throws SnapshotException also {@link ErrorCode#CANCELLED}
     */
    public void destroy(String name, ProgressListener progress, CancelToken cancel)
            throws SnapshotException {
        byte[] bytes = FileNames.name(name);
        requireOpen().callWhenFree(cancel, address -> {
            Native.destroy(address, bytes, progress, cancel);
            return null;
        });
    }

    /**
     * Removes the snapshots that no rule keeps, the oldest first. Damaged snapshots, and those of
     * {@code f2fs_snapshotctl run}, are neither counted nor removed. A snapshot that somebody
     * verifies or restores stays, for the reason {@code in use}.
     *
     * @param options the rules
     * @return what became of each snapshot, the newest first
     * @throws SnapshotException {@link ErrorCode#ARGUMENT} (no rule), {@link ErrorCode#BUSY},
     *     {@link ErrorCode#CANCELLED}, {@link ErrorCode#SYSTEM}. Snapshots removed before a failure
     *     stay removed
     */
    public List<PruneEntry> prune(PruneOptions options) throws SnapshotException {
        return listOf(requireOpen().callWhenFree(options.cancel,
                address -> Native.prune(address, options.last, options.hourly, options.daily,
                        options.weekly, options.monthly, options.yearly, options.within,
                        options.dryRun, options.progress, options.cancel)));
    }

    /**
     * Closes the store. Calls that run in other threads complete, and snapshots stay open. Does
     * nothing if the store is closed already.
     */
    @Override
    public void close() {
        synchronized (this) {
            if (closed) {
                return;
            }
            closed = true;
        }
        handle.release();
    }

    private synchronized StoreHandle requireOpen() {
        if (closed) {
            throw new IllegalStateException("the store is closed");
        }
        return handle;
    }

    private static <T> List<T> listOf(T[] array) {
        return Collections.unmodifiableList(Arrays.asList(array));
    }
}
