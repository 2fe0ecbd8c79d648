// SPDX-License-Identifier: Apache-2.0
import f2fs.snapshot.CreateOptions;
import f2fs.snapshot.Progress;
import f2fs.snapshot.SnapshotStore;
import java.io.IOException;
import java.io.UncheckedIOException;
import java.nio.file.Paths;
import java.time.Duration;

/** Holds the store STORE in a create of SOURCE, from a line that it prints to the end of its input. */
final class SecondProcess {
    private SecondProcess() {}

    public static void main(String[] args) throws IOException {
        CreateOptions options = CreateOptions.builder().progress(progress -> {
            if (progress.phase() == Progress.Phase.SYNC) {
                System.out.println("holding");
                waitForEnd();
            }
        }).build();
        try (SnapshotStore store = SnapshotStore.open(Paths.get(args[0]))) {
            store.setBusyTimeout(Duration.ofDays(1)); // the other one can come before the close
            store.create(options, Paths.get(args[1])).close();
        }
    }

    private static void waitForEnd() {
        try {
            while (System.in.read() >= 0) {
                // not yet
            }
        } catch (IOException exception) {
            throw new UncheckedIOException(exception);
        }
    }
}
