// SPDX-License-Identifier: Apache-2.0
import static org.junit.jupiter.api.Assertions.*;

import java.io.*;
import java.nio.file.*;
import java.util.Arrays;
import java.util.Collections;
import java.util.zip.ZipEntry;
import java.util.zip.ZipFile;
import org.junit.jupiter.api.Test;

/** The programs in examples/java, and the one that docs/java.md shows. */
class ExamplesTest extends OnVolume {
    private static final Path ROOT = Paths.get(System.getProperty("root"));

    @Test
    void firstSnapshotShowsTheFilesAndLeavesNothing() throws Exception {
        write(source.resolve("file"), "text");
        PrintStream standard = System.out;
        ByteArrayOutputStream out = new ByteArrayOutputStream();
        System.setOut(new PrintStream(out, true, "UTF-8"));
        try {
            FirstSnapshot.main(new String[] {source.toString(), store.path().toString()});
        } finally {
            System.setOut(standard);
        }
        String[] lines = out.toString("UTF-8").split("\n");
        assertTrue(lines[0].startsWith("all as of "));
        assertTrue(lines[1].endsWith("/snapshot" + source));
        assertTrue(lines[2].endsWith("/snapshot" + source.resolve("file")));
        assertEquals(Collections.emptyList(), inStore());
    }

    @Test
    void theDocumentShowsTheExample() throws IOException {
        String example = read(ROOT.resolve("examples/java/FirstSnapshot.java"));
        String shown = "```java\n" + example.substring(example.indexOf("import")) + "```\n";
        assertTrue(read(ROOT.resolve("docs/java.md")).contains(shown));
    }

    @Test
    void zipBackupPacksTheTree() throws IOException {
        Files.createDirectories(source.resolve("a/b"));
        write(source.resolve("a/file"), "text");
        Path zip = top.resolve("out.zip");
        assertEquals(1, ZipBackup.backUp(source, store.path(), zip));
        try (ZipFile file = new ZipFile(zip.toFile())) {
            assertEquals(Arrays.asList("a/", "a/b/", "a/file"),
                    list(file.stream().map(ZipEntry::getName)));
            assertEquals("text",
                    new String(file.getInputStream(file.getEntry("a/file")).readAllBytes()));
        }
        Files.createFile(child(source, "%FF"));
        Path other = top.resolve("other.zip");
        assertThrows(IOException.class, () -> ZipBackup.backUp(source, store.path(), other));
        assertFalse(Files.exists(other) || Files.exists(top.resolve("other.zip.partial")));
        assertEquals(Collections.emptyList(), inStore());
    }
}
