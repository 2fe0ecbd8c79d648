// SPDX-License-Identifier: Apache-2.0
/**
 * Point-in-time snapshots of directory trees on F2FS, kept under names in a store.
 *
 * <pre>{@code
 * try (SnapshotStore store = SnapshotStore.openOrCreate(Paths.get("/data/backup/store"));
 *         Snapshot snapshot = store.create(Paths.get("/data/media/0/DCIM"))) {
 *     Files.walk(snapshot.path()).forEach(System.out::println);
 * } // the snapshot is destroyed here
 * }</pre>
 *
 * <p>A failure is a {@link f2fs.snapshot.SnapshotException}. A parameter that no call could accept,
 * like an empty path or a path of another file system than the default one, is an {@link
 * java.lang.IllegalArgumentException}; {@code null} where it is not mentioned is a {@link
 * java.lang.NullPointerException}.
 *
 * <p>Paths cross to the file system as bytes: any file name works, whatever the VM's locale. Relative
 * paths are resolved as {@link java.nio.file.Path#toAbsolutePath()} does.
 *
 * <p>The native library {@code libf2fs_snapshot_java.so} is loaded at the first use, from the
 * directories of the system property {@code java.library.path}.
 */
package f2fs.snapshot;
