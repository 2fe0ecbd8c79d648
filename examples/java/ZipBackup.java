// SPDX-License-Identifier: Apache-2.0
import f2fs.snapshot.CreateOptions;
import f2fs.snapshot.Snapshot;
import f2fs.snapshot.SnapshotException;
import f2fs.snapshot.SnapshotStore;
import java.io.IOException;
import java.io.OutputStream;
import java.nio.file.Files;
import java.nio.file.InvalidPathException;
import java.nio.file.Path;
import java.nio.file.Paths;
import java.nio.file.StandardCopyOption;
import java.nio.file.StandardOpenOption;
import java.util.List;
import java.util.stream.Collectors;
import java.util.stream.Stream;
import java.util.zip.ZipEntry;
import java.util.zip.ZipOutputStream;

/**
 * Backs a directory up to a zip file, all of it as of one instant, while other programs go on writing
 * there. The zip file appears under its name when it is complete. Symbolic links are left out.
 */
public final class ZipBackup {
    private ZipBackup() {}

    /**
     * Runs the program.
     *
     * @param args DIRECTORY STORE ZIP
     */
    public static void main(String[] args) {
        if (args.length != 3) {
            System.err.println("usage: ZipBackup DIRECTORY STORE ZIP");
            System.exit(2);
        }
        try {
            int files = backUp(Paths.get(args[0]), Paths.get(args[1]), Paths.get(args[2]));
            System.out.println(files + " files in " + args[2]);
        } catch (SnapshotException exception) {
            System.err.println("ZipBackup: " + exception.code() + ": " + exception.getMessage());
            System.exit(1);
        } catch (IOException exception) {
            System.err.println("ZipBackup: " + exception);
            System.exit(1);
        }
    }

    static int backUp(Path directory, Path store, Path zip) throws IOException {
        CreateOptions options = CreateOptions.builder()
                .strict(true)
                .progress(progress -> System.err.println(progress))
                .build();
        try (SnapshotStore opened = SnapshotStore.openOrCreate(store);
                Snapshot snapshot = opened.create(options, directory)) {
            return pack(snapshot.pathOf(directory), zip);
        }
    }

    private static int pack(Path top, Path zip) throws IOException {
        Path partial = zip.resolveSibling(zip.getFileName() + ".partial");
        List<Path> paths;
        try (Stream<Path> walk = Files.walk(top)) {
            paths = walk.filter(path -> !path.equals(top) && !Files.isSymbolicLink(path))
                            .sorted()
                            .collect(Collectors.toList());
        }
        OutputStream file = Files.newOutputStream(
                partial, StandardOpenOption.CREATE_NEW, StandardOpenOption.WRITE);
        try {
            int files = 0;
            try (ZipOutputStream out = new ZipOutputStream(file)) {
                for (Path path : paths) {
                    files += add(path, nameOf(top.relativize(path)), out);
                }
            }
            Files.move(partial, zip, StandardCopyOption.ATOMIC_MOVE);
            return files;
        } finally {
            Files.deleteIfExists(partial);
        }
    }

    private static int add(Path path, String name, ZipOutputStream out) throws IOException {
        boolean isDirectory = Files.isDirectory(path);
        ZipEntry entry = new ZipEntry(isDirectory ? name + "/" : name);
        entry.setLastModifiedTime(Files.getLastModifiedTime(path));
        out.putNextEntry(entry);
        if (!isDirectory) {
            Files.copy(path, out);
        }
        out.closeEntry();
        return isDirectory ? 0 : 1;
    }

    // A zip file has names as text. A name that is no text in this locale must not become another one.
    private static String nameOf(Path path) throws IOException {
        String name = path.toString();
        try {
            if (Paths.get(name).equals(path)) {
                return name;
            }
        } catch (InvalidPathException exception) {
            // the same
        }
        throw new IOException("the name of " + path.toUri() + " cannot be told in a zip file");
    }
}
