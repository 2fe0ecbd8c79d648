// SPDX-License-Identifier: Apache-2.0
import f2fs.snapshot.Snapshot;
import f2fs.snapshot.SnapshotStore;
import java.nio.file.Files;
import java.nio.file.Path;
import java.nio.file.Paths;
import java.util.stream.Stream;

/** Makes a snapshot of a directory, reads it and discards it. */
public class FirstSnapshot {
    public static void main(String[] args) throws Exception {
        Path photos = Paths.get(args[0]);
        try (SnapshotStore store = SnapshotStore.openOrCreate(Paths.get(args[1]));
                Snapshot snapshot = store.create(photos);
                Stream<Path> files = Files.walk(snapshot.pathOf(photos))) {
            System.out.println("all as of " + snapshot.info().instantLatest());
            files.forEach(System.out::println);
        } // closing the snapshot destroys it
    }
}
