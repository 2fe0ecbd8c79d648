// SPDX-License-Identifier: Apache-2.0
import static org.junit.jupiter.api.Assertions.*;

import f2fs.snapshot.*;
import java.io.IOException;
import java.nio.file.*;
import java.time.Duration;
import java.time.Instant;
import java.util.*;
import java.util.concurrent.atomic.AtomicInteger;
import org.junit.jupiter.api.Test;

/** What a store does when all goes well. */
class StoreTest extends OnVolume {
    @Test
    void aSnapshotIsReadAndThenDestroyed() throws IOException {
        Files.createDirectories(source.resolve("a/b"));
        write(source.resolve("a/b/one"), "one");
        write(source.resolve("empty"), "");
        Files.createSymbolicLink(source.resolve("link"), Paths.get("a/b/one"));
        Path link = Files.createSymbolicLink(top.resolve("to source"), source);
        Instant before = Instant.now().minusSeconds(1);
        Path path;
        try (Snapshot snapshot = store.create(CreateOptions.builder().digests(true).build(), link)) {
            path = snapshot.path();
            write(source.resolve("a/b/one"), "changed");
            assertEquals("one", read(snapshot.pathOf(source.resolve("a/b/one"))));
            assertEquals(snapshot.pathOf(source), snapshot.pathOf(link));
            assertEquals(path.resolve(Paths.get("/").relativize(source)), snapshot.pathOf(source));
            assertThrows(IllegalArgumentException.class, () -> snapshot.pathOf(top));
            assertThrows(IllegalArgumentException.class,
                    () -> snapshot.pathOf(source.resolve("../none")));
            checkInfo(snapshot.info(), before);
            assertEquals(Collections.singletonList(snapshot.name()), names());
            assertTrue(SnapshotStore.version().matches("\\d+\\.\\d+\\.\\d+"));
        }
        assertFalse(Files.exists(path));
        assertEquals(Collections.emptyList(), inStore());
    }

    private void checkInfo(SnapshotInfo info, Instant before) {
        assertEquals(Collections.singletonList(source), info.sources());
        List<Instant> times = Arrays.asList(before, info.created(), info.instantEarliest(),
                info.instantLatest(), Instant.now().plusSeconds(1));
        List<Instant> sorted = new ArrayList<>(times);
        Collections.sort(sorted);
        assertEquals(sorted, times);
        assertTrue(info.isWhole() && info.hasDigests());
        assertEquals(Arrays.asList(2L, 3L, 1L, 3L, 0L),
                Arrays.asList(info.files(), info.directories(), info.links(), info.bytes(),
                        info.filesAgain()));
        assertEquals(Collections.emptyList(), info.findings());
        assertEquals(1, info.attempts());
    }

    @Test
    void aKeptSnapshotStays() throws IOException {
        write(source.resolve("file"), "kept");
        try (Snapshot snapshot = store.create(named("first").build(), source)) {
            assertFalse(snapshot.isKept());
            snapshot.keep();
        }
        try (Snapshot snapshot = store.openSnapshot("first")) {
            assertTrue(snapshot.isKept());
            assertFalse(snapshot.info().hasDigests());
            assertEquals("kept", read(snapshot.pathOf(source.resolve("file"))));
            assertTrue(store.diskUsage("first") >= 4);
        }
        assertEquals(Collections.singletonList("first"), names());
    }

    @Test
    void closingASnapshotSparesAnotherOneOfItsName() throws IOException {
        Snapshot replaced = store.create(named("name").build(), source);
        store.destroy("name");
        keep("name");
        replaced.close();
        assertEquals(Collections.singletonList("name"), names());
        Snapshot gone = store.create(named("gone").build(), source);
        store.destroy("gone");
        gone.close();
    }

    @Test
    void aDamagedSnapshotIsListedWithItsProblem() throws IOException {
        keep("whole");
        Files.createDirectory(store.path().resolve("damaged"));
        SnapshotEntry entry = store.list().get(1);
        assertEquals("damaged", entry.name());
        assertFalse(entry.info().isPresent());
        assertEquals(ErrorCode.FORMAT, entry.problem().get().code());
        SnapshotEntry whole = store.list().get(0);
        assertEquals("whole", whole.info().get().name());
        assertFalse(whole.problem().isPresent());
    }

    private static List<String> shown(List<PruneEntry> entries) {
        return list(entries.stream().map(Object::toString));
    }

    @Test
    void pruneKeepsByTheRules() throws IOException {
        for (String name : Arrays.asList("1", "2", "3", "4")) {
            keep(name);
        }
        PruneOptions.Builder rules = PruneOptions.builder().keepLast(2).keepYearly(1);
        List<String> expected =
                Arrays.asList("4: kept (last, yearly)", "3: kept (last)", "2: removed", "1: removed");
        assertEquals(expected, shown(store.prune(rules.dryRun(true).build())));
        assertEquals(4, store.list().size());
        assertEquals(expected, shown(store.prune(rules.dryRun(false).build())));
        assertEquals(Arrays.asList("3", "4"), names());
        // Each rule reaches its own member of the native structure.
        List<PruneOptions.Builder> single = Arrays.asList(PruneOptions.builder().keepHourly(1),
                PruneOptions.builder().keepDaily(1), PruneOptions.builder().keepWeekly(1),
                PruneOptions.builder().keepMonthly(1),
                PruneOptions.builder().keepWithin(Duration.ofDays(1)));
        List<String> reasons = Arrays.asList("hourly", "daily", "weekly", "monthly", "within");
        for (int i = 0; i < reasons.size(); i++) {
            PruneEntry newest = store.prune(single.get(i).dryRun(true).build()).get(0);
            assertEquals(Collections.singletonList(reasons.get(i)), newest.reasons());
        }
    }

    @Test
    void verifyAndRestore() throws IOException {
        write(source.resolve("one"), "1");
        write(source.resolve("two"), "2");
        try (Snapshot snapshot =
                        store.create(named("name").digests(true).build(), source)) {
            Path in = snapshot.pathOf(source);
            assertEquals(2, store.verify("name").files());
            assertTrue(store.verify("name").isFine());
            write(in.resolve("one"), "x");
            Files.delete(in.resolve("two"));
            Report report = store.verify("name");
            assertEquals(Arrays.asList("DIGEST_DIFFERS FAILS one", "MISSING FAILS two"),
                    kinds(report.findings()));
            assertFalse(report.isFine());
            write(in.resolve("one"), "1");

            Path out = top.resolve("out");
            Path restored = out.resolve(Paths.get("/").relativize(source)).resolve("one");
            RestoreOptions.Builder one = RestoreOptions.builder().paths(source.resolve("one"));
            assertTrue(store.restore("name", out, one.dryRun(true).build()).isFine());
            assertFalse(Files.exists(restored));
            assertTrue(store.restore("name", out, one.dryRun(false).build()).isFine());
            write(restored, "to be replaced");
            assertFails(ErrorCode.EXISTS, () -> store.restore("name", out, one.build()));
            assertTrue(store.restore("name", out, one.overwrite(true).build()).isFine());
            assertEquals("1", read(restored));
            assertFalse(store.restore("name", top.resolve("all")).isFine());
        }
    }

    @Test
    void checkReportsPathsThatAreNotCovered() throws IOException {
        Path file = write(source.resolve("file"), "");
        Files.createLink(source.resolve("other"), file);
        Report report = store.check(source);
        assertEquals(Arrays.asList("HARD_LINK UNCOVERED file", "HARD_LINK UNCOVERED other"),
                kinds(report.findings()));
        assertTrue(report.isFine());
        assertEquals(Arrays.asList(2L, 1L, 0L, 0L),
                Arrays.asList(report.files(), report.directories(), report.links(),
                        report.bytes()));
    }

    @Test
    void progressReportsEachPhase() throws IOException {
        for (int i = 0; i < 5; i++) {
            write(source.resolve("file" + i), "text");
        }
        Set<Progress.Phase> seen = EnumSet.noneOf(Progress.Phase.class);
        AtomicInteger filesTotal = new AtomicInteger();
        CreateOptions options = named("name").progress(progress -> {
            seen.add(progress.phase());
            if (progress.phase() == Progress.Phase.CREATE) {
                filesTotal.set((int) progress.filesTotal());
                assertEquals(1, progress.attempt());
            }
        }).build();
        store.create(options, source).close();
        keep("other");
        store.verify("other", progress -> seen.add(progress.phase()), null);
        store.restore("other", top.resolve("out"), RestoreOptions.builder().progress(
                progress -> seen.add(progress.phase())).build());
        store.check(progress -> seen.add(progress.phase()), null, source);
        store.destroy("other", progress -> seen.add(progress.phase()), null);
        assertEquals(EnumSet.complementOf(EnumSet.of(Progress.Phase.OTHER)), seen);
        assertEquals(5, filesTotal.get());
    }

    @Test
    void aRenameIsReported() throws IOException {
        write(source.resolve("before"), "");
        CreateOptions.Builder options =
                named("name").attempts(1).progress(atFirst(Progress.Phase.CREATE, this::rename));
        try (Snapshot snapshot = store.create(options.build(), source)) {
            assertFalse(snapshot.info().isWhole());
            List<String> findings = kinds(snapshot.info().findings());
            assertTrue(findings.containsAll(
                               Arrays.asList("VANISHED FAILS before", "APPEARED FAILS after")),
                    findings.toString());
            assertNotEquals(0, snapshot.info().findings().get(0).message().length());
        }
        rename(); // back
        options.strict(true).progress(atFirst(Progress.Phase.CREATE, this::rename));
        assertFails(ErrorCode.NOT_WHOLE, () -> store.create(options.build(), source));
        assertEquals(Collections.emptyList(), names());
    }

    private void rename() {
        try {
            Path before = source.resolve("before");
            Path after = source.resolve("after");
            boolean isBefore = Files.exists(before);
            Files.move(isBefore ? before : after, isBefore ? after : before);
        } catch (IOException exception) {
            throw new IllegalStateException(exception);
        }
    }
}
