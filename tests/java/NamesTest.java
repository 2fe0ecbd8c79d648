// SPDX-License-Identifier: Apache-2.0
import static org.junit.jupiter.api.Assertions.*;

import f2fs.snapshot.*;
import java.io.IOException;
import java.lang.reflect.Proxy;
import java.net.URI;
import java.nio.file.*;
import java.util.*;
import org.junit.jupiter.api.Test;

/** Names of any bytes, in any locale: run with the C locale as well. */
class NamesTest extends OnVolume {
    /** A camera (outside the Basic Multilingual Plane), line ends, no UTF-8, what URIs escape. */
    private static final List<String> NAMES = Arrays.asList("%F0%9F%93%B7", "%0A%0D%09",
            "%FF%FE%C3", "%ED%A0%BD%ED%B3%B7", "%25%3F%23%20%3B%3A%5C%22", "%C3%A9", "%7F%01", "~");

    @Test
    void sourcesStoresAndDestinationsCanHaveAnyName() throws IOException {
        for (String name : NAMES) {
            Path tree = Files.createDirectory(child(source, name));
            write(child(tree, name), name);
            try (SnapshotStore odd = SnapshotStore.openOrCreate(child(top, "s" + name));
                    Snapshot snapshot = odd.create(named("kept").digests(true).build(), tree)) {
                assertEquals(child(top, "s" + name), odd.path());
                assertEquals(Collections.singletonList(tree), snapshot.info().sources());
                Path mirror = snapshot.pathOf(tree);
                assertEquals(name, read(child(mirror, name)));
                write(child(mirror, name), "changed");
                assertEquals(Collections.singletonList(child(tree, name)),
                        list(odd.verify("kept").findings().stream().map(one -> one.path())));
                write(child(mirror, name), name);
                Path out = child(top, "o" + name);
                odd.restore("kept", out,
                        RestoreOptions.builder().paths(child(tree, name)).build());
                assertEquals(name,
                        read(child(out.resolve(Paths.get("/").relativize(tree)), name)));
                assertFails(ErrorCode.EXISTS, () -> odd.restore("kept", out));
            }
            Path missing = child(top, "m" + name);
            assertEquals(missing, assertFails(ErrorCode.SYSTEM, () -> SnapshotStore.open(missing))
                                          .path().get());
        }
    }

    @Test
    void aSnapshotCanBeNamedInAnyLanguage() throws IOException {
        String name = "Grüße \uD83D\uDCF7 e\u0301";
        keep(name);
        assertEquals(Collections.singletonList(name), names());
        // In UTF-8, whatever the locale, as the command line has it.
        assertTrue(Files.isDirectory(
                child(store.path(), "Gr%C3%BC%C3%9Fe%20%F0%9F%93%B7%20e%CC%81")));
        store.openSnapshot(name).close();
        store.destroy(name);
    }

    @Test
    void aSnapshotWhoseNameIsNoTextIsListedAsSuch() throws IOException {
        keep("name");
        Files.move(store.path().resolve("name"), child(store.path(), "%FF"));
        SnapshotEntry entry = store.list().get(0);
        assertFalse(entry.info().isPresent());
        assertEquals(ErrorCode.NAME, entry.problem().get().code());
    }

    @Test
    void relativePathsAreThoseOfTheWorkingDirectory() throws IOException {
        Path here = Paths.get("").toAbsolutePath();
        try (SnapshotStore again = SnapshotStore.open(here.relativize(store.path()))) {
            assertEquals(store.path(), again.path());
        }
    }

    /** A path whose URI has other bytes than its text, as a VM that loses bytes would give it. */
    @Test
    void aPathThatLosesItsBytesIsRefused() {
        Path[] self = new Path[1];
        self[0] = (Path) Proxy.newProxyInstance(
                Path.class.getClassLoader(), new Class<?>[] {Path.class}, (proxy, method, args) -> {
                    switch (method.getName()) {
                        case "getFileSystem":
                            return FileSystems.getDefault();
                        case "toUri":
                            return URI.create("file:///%3F");
                        case "toAbsolutePath":
                            return self[0];
                        default:
                            return "/?";
                    }
                });
        assertThrows(InvalidPathException.class, () -> SnapshotStore.open(self[0]));
    }
}
