// SPDX-License-Identifier: Apache-2.0
import static org.junit.jupiter.api.Assertions.*;

import f2fs.snapshot.*;
import java.io.IOException;
import java.net.URI;
import java.nio.file.*;
import java.nio.file.attribute.PosixFilePermissions;
import java.time.Duration;
import java.util.*;
import java.util.regex.Matcher;
import java.util.regex.Pattern;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.function.Executable;

/** What a caller gets when a call does not succeed. */
class ErrorTest extends OnVolume {
    @Test
    void aFailureHasItsCodeAndPath() throws IOException {
        keep("there");
        Path missing = top.resolve("missing");
        Path failing = Paths.get("/bin/false");
        Path hanging = write(top.resolve("hanging"), "#!/bin/sh\nexec sleep 100\n");
        Files.setPosixFilePermissions(hanging, PosixFilePermissions.fromString("rwx------"));

        assertFails(ErrorCode.ARGUMENT, null, () -> store.create());
        assertFails(ErrorCode.ARGUMENT, null, () -> store.prune(PruneOptions.builder().build()));
        final int noEntry = 2;
        assertEquals(noEntry,
                assertFails(ErrorCode.SYSTEM, missing, () -> SnapshotStore.open(missing)).osError());
        assertFails(ErrorCode.NAME, Paths.get(".n"),
                () -> store.create(named(".n").build(), source));
        assertFails(ErrorCode.NAME, null, () -> store.create(named("a\0b").build(), source));
        assertFails(ErrorCode.NAME, null, () -> store.openSnapshot("half \uD83D"));
        assertFails(ErrorCode.EXISTS, store.path().resolve("there"),
                () -> store.create(named("there").build(), source));
        assertFails(ErrorCode.LIBRARY,
                () -> store.create(CreateOptions.builder().helper(failing).build(), source));
        assertFails(ErrorCode.TIMEOUT,
                () -> store.create(CreateOptions.builder()
                                .helper(hanging)
                                .timeLimit(Duration.ofMillis(1))
                                .build(), source));
    }

    @Test
    void aCallCanBeCancelledFromAnotherThread() throws IOException {
        CancelToken token = new CancelToken();
        CreateOptions options = named("name").cancel(token).progress(
                atFirst(Progress.Phase.CREATE, () -> inAnotherThread(token::cancel))).build();
        assertFails(ErrorCode.CANCELLED, null, () -> store.create(options, source));
        assertEquals(Collections.emptyList(), inStore());

        keep("name");
        List<Executable> calls = Arrays.asList(() -> store.check(null, token, source),
                () -> store.verify("name", null, token),
                () -> store.restore("name", top.resolve("out"),
                        RestoreOptions.builder().cancel(token).build()),
                () -> store.destroy("name", null, token));
        for (Executable call : calls) {
            assertFails(ErrorCode.CANCELLED, null, call);
        }
        keep("newer");
        assertFails(ErrorCode.CANCELLED, null, () ->
                store.prune(PruneOptions.builder().keepLast(1).cancel(token).build()));
        assertEquals(Arrays.asList("name", "newer"), names());
    }

    static void inAnotherThread(Runnable task) {
        Thread thread = new Thread(task);
        thread.start();
        try {
            thread.join();
        } catch (InterruptedException exception) {
            throw new IllegalStateException(exception);
        }
    }

    /** The same throwable comes out of the call, which leaves nothing, in whatever phase. */
    @Test
    void whatAListenerThrowsEndsTheCall() throws IOException {
        write(source.resolve("file"), "");
        for (Throwable thrown : Arrays.asList(new IllegalStateException(), new StackOverflowError())) {
            for (Progress.Phase phase : Arrays.asList(Progress.Phase.LIST, Progress.Phase.CREATE,
                         Progress.Phase.CHECK, Progress.Phase.RECORD, Progress.Phase.SYNC)) {
                int[] calls = {0};
                ProgressListener listener = progress -> {
                    if (progress.phase() == phase) {
                        calls[0]++;
                        ErrorTest.<RuntimeException>sneak(thrown);
                    }
                };
                CreateOptions options = CreateOptions.builder()
                                                .progress(listener)
                                                .cancel(new CancelToken())
                                                .build();
                assertSame(thrown,
                        assertThrows(thrown.getClass(), () -> store.create(options, source)));
                assertEquals(1, calls[0]);
                assertEquals(Collections.emptyList(), inStore());
            }
        }
        keep("name");
        ProgressListener listener = progress -> {
            throw new IllegalStateException();
        };
        assertThrows(IllegalStateException.class, () -> store.verify("name", listener, null));
        assertThrows(IllegalStateException.class, () -> store.destroy("name", listener, null));
    }

    @SuppressWarnings("unchecked")
    private static <T extends Throwable> void sneak(Throwable thrown) throws T {
        throw(T) thrown;
    }

    @Test
    void aClosedStoreOrSnapshotRefusesEachCall() throws IOException {
        Snapshot snapshot = store.create(source);
        snapshot.close();
        snapshot.close();
        Snapshot open = store.create(named("name").build(), source);
        store.close();
        store.close();
        List<Executable> calls = Arrays.asList(store::path, store::list,
                () -> store.create(source), () -> store.check(source),
                () -> store.openSnapshot("name"), () -> store.diskUsage("name"),
                () -> store.verify("name"), () -> store.restore("name", top.resolve("out")),
                () -> store.destroy("name"),
                () -> store.prune(PruneOptions.builder().keepLast(1).build()),
                () -> store.setBusyTimeout(Duration.ZERO), snapshot::path, snapshot::keep,
                () -> snapshot.pathOf(source));
        for (Executable call : calls) {
            assertThrows(IllegalStateException.class, call);
        }
        assertTrue(Files.exists(open.path())); // a snapshot outlives the object of its store
        open.close();
        assertFalse(Files.exists(open.info().path()));
    }

    @Test
    void parametersThatNoCallAcceptsAreRefusedAtOnce() throws IOException {
        URI zip = URI.create("jar:" + top.resolve("zip").toUri());
        FileSystem other = FileSystems.newFileSystem(zip, Collections.singletonMap("create", "true"));
        Path foreign = other.getPath("/");
        List<Executable> calls = Arrays.asList(() -> store.create(Paths.get("")),
                () -> store.create(foreign), () -> SnapshotStore.open(Paths.get("")),
                () -> CreateOptions.builder().attempts(0),
                () -> CreateOptions.builder().timeLimit(Duration.ZERO),
                () -> CreateOptions.builder().timeLimit(Duration.ofSeconds(1L << 32)),
                () -> PruneOptions.builder().keepLast(-1),
                () -> store.setBusyTimeout(Duration.ofNanos(-1)));
        for (Executable call : calls) {
            assertThrows(IllegalArgumentException.class, call);
        }
        List<Executable> nulls = Arrays.asList(() -> store.create((Path) null),
                () -> store.openSnapshot(null), () -> CreateOptions.builder().name(null),
                () -> SnapshotStore.open(null));
        for (Executable call : nulls) {
            assertThrows(NullPointerException.class, call);
        }
        other.close();
    }

    /** Each number of the C header has its name here, and the other way round. */
    @Test
    void numbersAreThoseOfTheHeader() throws IOException {
        Path root = Paths.get(System.getProperty("root"));
        String header = read(root.resolve("manager/f2fs_snapshot_manager.h"));
        String[][] prefixes = {{"ErrorCode", "ERROR_"}, {"Progress", "PHASE_"},
                {"Finding", "(?:FOUND_|(?=FAILS|UNCOVERED|NOTE))"}};
        for (String[] one : prefixes) {
            String here = read(root.resolve("java/f2fs/snapshot/" + one[0] + ".java"));
            Map<String, String> numbers =
                    matches("F2FS_SNAPSHOT_" + one[1] + "(\\w+) = (\\d+)", header);
            assertFalse(numbers.isEmpty());
            assertEquals(numbers, matches(" ([A-Z_]+)\\(([1-9]\\d*)\\)[,;]", here));
        }
    }

    private static Map<String, String> matches(String pattern, String text) {
        Map<String, String> matches = new TreeMap<>();
        Matcher match = Pattern.compile(pattern).matcher(text);
        while (match.find()) {
            matches.put(match.group(1), match.group(2));
        }
        return matches;
    }

    private static SnapshotException assertFails(ErrorCode code, Path path, Executable call) {
        SnapshotException exception = assertFails(code, call);
        assertEquals(Optional.ofNullable(path), exception.path(), exception.getMessage());
        return exception;
    }
}
