// SPDX-License-Identifier: Apache-2.0
import static org.junit.jupiter.api.Assertions.*;

import f2fs.snapshot.*;
import java.io.IOException;
import java.lang.ref.WeakReference;
import java.nio.file.*;
import java.time.Duration;
import java.util.Arrays;
import java.util.List;
import java.util.concurrent.FutureTask;
import java.util.regex.Matcher;
import java.util.regex.Pattern;
import java.util.stream.Stream;
import org.junit.jupiter.api.Test;

/** Several threads, objects that nobody closed, and many calls. */
class SharingTest extends OnVolume {
    @Test
    void callsOnOneStoreTakeTurns() throws Exception {
        FutureTask<Boolean> patient = new FutureTask<>(() -> {
            store.create(source).close();
            return true;
        });
        CreateOptions options = CreateOptions.builder().progress(
                atFirst(Progress.Phase.CREATE, () -> {
                    assertDoesNotThrow(() -> store.list());
                    assertFails(ErrorCode.BUSY, () -> store.create(source));
                    store.setBusyTimeout(Duration.ofDays(1));
                    assertDoesNotThrow(this::cancelWhileWaiting);
                    assertDoesNotThrow(this::interruptWhileWaiting);
                    startAndLetWait(patient);
                })).build();
        store.create(options, source).close();
        assertTrue(patient.get());
    }

    private void cancelWhileWaiting() throws Exception {
        CancelToken token = new CancelToken();
        CreateOptions options = CreateOptions.builder().cancel(token).build();
        FutureTask<?> call = new FutureTask<>(
                () -> assertFails(ErrorCode.CANCELLED, () -> store.create(options, source)));
        startAndLetWait(call);
        token.cancel();
        call.get();
    }

    private void interruptWhileWaiting() throws Exception {
        FutureTask<Boolean> call = new FutureTask<>(() -> {
            assertFails(ErrorCode.BUSY, () -> store.create(source));
            return Thread.interrupted();
        });
        startAndLetWait(call).interrupt();
        assertTrue(call.get());
    }

    /** Starts a call in another thread. Returns once it waits for its turn, or has ended. */
    private static Thread startAndLetWait(FutureTask<?> call) {
        Thread thread = new Thread(call);
        thread.start();
        while (thread.getState() != Thread.State.TIMED_WAITING && thread.isAlive()) {
            assertFalse(Thread.interrupted(), "by the time limit");
            Thread.yield();
        }
        return thread;
    }

    @Test
    void closingAStoreLetsARunningCallEnd() throws IOException {
        CreateOptions options = CreateOptions.builder().progress(
                atFirst(Progress.Phase.CREATE, () -> {
                    long before = descriptors();
                    ErrorTest.inAnotherThread(store::close);
                    assertThrows(IllegalStateException.class, store::list);
                    assertEquals(before, descriptors());
                })).build();
        try (Snapshot snapshot = store.create(options, source)) {
            assertTrue(Files.exists(snapshot.path()));
            assertEquals(1, descriptors()); // the snapshot's
        }
        assertEquals(0, descriptors());
        try (Stream<Path> left = Files.list(top.resolve("store"))) {
            assertEquals(0, left.count());
        }
    }

    @Test
    void aForgottenStoreIsFreed() throws IOException {
        final int forgotten = 20;
        for (int i = 0; i < forgotten; i++) {
            SnapshotStore.open(top.resolve("store")).list();
        }
        keep("name");
        assertEquals(0, store.openSnapshot("name").info().filesAgain());
        assertTrue(descriptors() > 1);
        while (descriptors() > 1) {
            assertFalse(Thread.interrupted(), "by the time limit");
            System.gc();
            SnapshotStore.open(top.resolve("store")).close();
        }
        store.list(); // this one is in use
    }

    /** How many descriptors of the store this process has: one for each native store. */
    private long descriptors() {
        Path directory = top.resolve("store");
        try (Stream<Path> links = Files.list(Paths.get("/proc/self/fd"))) {
            return links.filter(path -> isLinkTo(path, directory)).count();
        } catch (IOException exception) {
            throw new IllegalStateException(exception);
        }
    }

    private static boolean isLinkTo(Path link, Path target) {
        try {
            return Files.readSymbolicLink(link).equals(target);
        } catch (IOException exception) {
            return false; // closed meanwhile
        }
    }

    @Test
    void aCallHoldsNeitherListenerNorToken() throws IOException {
        for (WeakReference<?> reference : callAndForget()) {
            while (reference.get() != null) {
                assertFalse(Thread.interrupted(), "by the time limit");
                System.gc();
            }
        }
    }

    private List<WeakReference<?>> callAndForget() throws IOException {
        int[] calls = {0};
        ProgressListener listener = progress -> calls[0]++; // an object of this call
        CancelToken token = new CancelToken();
        store.create(named("name").progress(listener).cancel(token).build(), source).close();
        return Arrays.asList(new WeakReference<>(listener), new WeakReference<>(token));
    }

    /** With results so large that one which is not freed shows. */
    @Test
    void manyCallsTakeNoMemory() throws IOException {
        final int rounds = IS_LONG ? 10_000 : 150;
        makeLargeResults();
        Path tree = Files.createDirectory(top.resolve("tree"));
        for (int i = 0; i < rounds / 3; i++) {
            callAll(i, tree);
        }
        long before = residentKilobytes();
        for (int i = 0; i < rounds; i++) {
            callAll(i, tree);
        }
        long growth = residentKilobytes() - before;
        assertTrue(growth < 3 * 1024, growth + " KiB more after " + rounds + " rounds");
    }

    /** 100 findings in the snapshot's information, 101 in its report, 5 KiB for a damaged one. */
    private void makeLargeResults() throws IOException {
        Path file = write(source.resolve("file"), "");
        for (int i = 1; i < 100; i++) {
            Files.createLink(source.resolve("a long name to make the finding large " + i), file);
        }
        keep("name");
        try (Snapshot snapshot = store.openSnapshot("name");
                Stream<Path> files = Files.list(snapshot.pathOf(source))) {
            for (Path taken : list(files)) {
                Files.delete(taken);
            }
        }
        for (int i = 0; i < 10; i++) {
            Files.createDirectory(store.path().resolve("damaged" + i));
        }
    }

    private void callAll(int round, Path tree) throws IOException {
        ProgressListener listener = progress -> {};
        try (SnapshotStore own = SnapshotStore.open(store.path())) {
            assertEquals(100, own.verify("name", listener, new CancelToken()).findings().size());
            assertEquals(11, own.list().size());
            own.prune(PruneOptions.builder().keepLast(1).dryRun(true).build());
            assertFails(ErrorCode.NOT_FOUND, () -> own.openSnapshot("none"));
            try (Snapshot snapshot = own.openSnapshot("name")) {
                assertEquals(100, snapshot.info().findings().size());
            }
            if (round % 50 == 0) {
                own.create(CreateOptions.builder().progress(listener).build(), tree).close();
            }
        }
    }

    private static long residentKilobytes() throws IOException {
        Matcher line = Pattern.compile("VmRSS:\\s*(\\d+) kB")
                               .matcher(read(Paths.get("/proc/self/status")));
        assertTrue(line.find());
        return Long.parseLong(line.group(1));
    }
}
