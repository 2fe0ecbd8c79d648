// SPDX-License-Identifier: Apache-2.0
import f2fs.snapshot.*;
import java.io.IOException;
import java.net.URI;
import java.nio.charset.StandardCharsets;
import java.nio.file.*;
import java.util.*;
import java.util.concurrent.atomic.AtomicBoolean;
import java.util.stream.Collectors;
import java.util.stream.Stream;
import org.junit.jupiter.api.*;
import org.junit.jupiter.api.function.Executable;

/** An empty source and a store on the volume F2FS_SNAPSHOT_TEST_VOLUME. */
@Timeout(300)
abstract class OnVolume {
    static final boolean IS_LONG = "1".equals(System.getenv("F2FS_SNAPSHOT_LONG"));

    Path top;
    Path source;
    SnapshotStore store;

    @BeforeEach
    void makeSourceAndStore() throws IOException {
        Path volume = Paths.get(System.getenv("F2FS_SNAPSHOT_TEST_VOLUME"));
        top = Files.createTempDirectory(volume, "t").toRealPath();
        source = Files.createDirectory(top.resolve("source"));
        store = SnapshotStore.openOrCreate(top.resolve("store"));
    }

    @AfterEach
    void removeAll() throws IOException {
        store.close();
        try (Stream<Path> paths = Files.walk(top)) {
            for (Path path : list(paths.sorted(Comparator.reverseOrder()))) {
                Files.delete(path);
            }
        }
    }

    /** The entries of the store's directory, by name, partial snapshots included. */
    List<String> inStore() throws IOException {
        try (Stream<Path> paths = Files.list(store.path())) {
            return list(paths.map(path -> path.getFileName().toString()).sorted());
        }
    }

    List<String> names() throws SnapshotException {
        return list(store.list().stream().map(Object::toString));
    }

    static String read(Path path) throws IOException {
        return new String(Files.readAllBytes(path), StandardCharsets.ISO_8859_1);
    }

    static Path write(Path path, String text) throws IOException {
        return Files.write(path, text.getBytes(StandardCharsets.ISO_8859_1));
    }

    /** A file below a directory by its percent-encoded name. */
    static Path child(Path directory, String encoded) {
        String parent = directory.toUri().getRawPath();
        String slash = parent.endsWith("/") ? "" : "/";
        return Paths.get(URI.create("file://" + parent + slash + encoded));
    }

    /** Makes a snapshot that stays, and returns its name. */
    String keep(String name) throws SnapshotException {
        try (Snapshot snapshot = store.create(named(name).build(), source)) {
            snapshot.keep();
        }
        return name;
    }

    /** Acts at the first report of a phase. Later reports come about every tenth of a second. */
    static ProgressListener atFirst(Progress.Phase phase, Runnable action) {
        AtomicBoolean acted = new AtomicBoolean();
        return progress -> {
            if (progress.phase() == phase && !acted.getAndSet(true)) {
                action.run();
            }
        };
    }

    static CreateOptions.Builder named(String name) {
        return CreateOptions.builder().name(name);
    }

    static <T> List<T> list(Stream<T> stream) {
        return stream.collect(Collectors.toList());
    }

    static List<String> kinds(List<Finding> findings) {
        return list(findings.stream().map(
                one -> one.kind() + " " + one.severity() + " " + one.path().getFileName()));
    }

    static SnapshotException assertFails(ErrorCode code, Executable call) {
        SnapshotException exception = Assertions.assertThrows(SnapshotException.class, call);
        Assertions.assertEquals(code, exception.code(), exception.getMessage());
        return exception;
    }
}
