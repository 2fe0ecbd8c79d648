// SPDX-License-Identifier: Apache-2.0
package f2fs.snapshot;

import java.nio.file.Path;
import java.time.Instant;
import java.util.ArrayList;
import java.util.Collections;
import java.util.List;

/** What is known about a snapshot. It does not change. */
public final class SnapshotInfo {
    private static final long NANOSECONDS = 1_000_000_000;

    private final String name;
    private final Path path;
    private final List<Path> sources;
    private final Instant created;
    private final Instant instantEarliest;
    private final Instant instantLatest;
    private final Report report;
    private final int attempts;
    private final int passes;
    private final long filesAgain;
    private final boolean whole;
    private final boolean linksBlocked;
    private final boolean digests;

    /** Called by native code. Times are nanoseconds since 1970. */
    private SnapshotInfo(byte[] name, byte[] path, byte[][] sources, long created,
            long instantEarliest, long instantLatest, Report report, int attempts, int passes,
            long filesAgain, boolean whole, boolean linksBlocked, boolean digests) {
        this.name = FileNames.text(name);
        this.path = FileNames.path(path);
        List<Path> list = new ArrayList<>();
        for (byte[] source : sources) {
            list.add(FileNames.path(source));
        }
        this.sources = Collections.unmodifiableList(list);
        this.created = instant(created);
        this.instantEarliest = instant(instantEarliest);
        this.instantLatest = instant(instantLatest);
        this.report = report;
        this.attempts = attempts;
        this.passes = passes;
        this.filesAgain = filesAgain;
        this.whole = whole;
        this.linksBlocked = linksBlocked;
        this.digests = digests;
    }

    private static Instant instant(long nanoseconds) {
        return Instant.ofEpochSecond(Math.floorDiv(nanoseconds, NANOSECONDS),
                Math.floorMod(nanoseconds, NANOSECONDS));
    }

    /**
     * The snapshot's name in the store.
     *
     * @return the name
     */
    public String name() {
        return name;
    }

    /**
     * The directory that holds the trees. A source {@code /a/b} is its subdirectory {@code a/b};
     * {@link Snapshot#pathOf} finds it.
     *
     * @return the path, absolute
     */
    public Path path() {
        return path;
    }

    /**
     * The directories that were snapshotted, with symbolic links resolved, in the order of their
     * paths.
     *
     * @return the paths, absolute
     */
    public List<Path> sources() {
        return sources;
    }

    /**
     * When the call began.
     *
     * @return the time
     */
    public Instant created() {
        return created;
    }

    /**
     * The instant whose contents the snapshot holds is not before this time.
     *
     * @return the time
     */
    public Instant instantEarliest() {
        return instantEarliest;
    }

    /**
     * The instant whose contents the snapshot holds is not after this time.
     *
     * @return the time
     */
    public Instant instantLatest() {
        return instantLatest;
    }

    /**
     * Tells whether the trees are whole, as of one instant: names, types, links and contents. Only
     * the files that the findings name as hard links are not covered against each other.
     *
     * @return false if names changed meanwhile, and {@link #findings} tells which. Contents are of
     *     one instant then too, for files that kept their names
     */
    public boolean isWhole() {
        return whole;
    }

    /**
     * What changed while the snapshot was made, and what is not covered.
     *
     * @return the findings
     */
    public List<Finding> findings() {
        return report.findings();
    }

    /**
     * Regular files.
     *
     * @return how many
     */
    public long files() {
        return report.files();
    }

    /**
     * Directories.
     *
     * @return how many
     */
    public long directories() {
        return report.directories();
    }

    /**
     * Symbolic links.
     *
     * @return how many
     */
    public long links() {
        return report.links();
    }

    /**
     * The sizes of the files.
     *
     * @return bytes in all
     */
    public long bytes() {
        return report.bytes();
    }

    /**
     * How often the snapshot library was called.
     *
     * @return a number of calls
     */
    public int attempts() {
        return attempts;
    }

    /**
     * The check passes of the last attempt.
     *
     * @return a number of passes; 0 if it is not known
     */
    public int passes() {
        return passes;
    }

    /**
     * Files that were snapshotted more than once in the last attempt, because they changed.
     *
     * @return a number of files
     */
    public long filesAgain() {
        return filesAgain;
    }

    /**
     * Tells whether the library ran where no symbolic link is followed.
     *
     * @return false if links that others put in its way could be followed
     */
    public boolean linksBlocked() {
        return linksBlocked;
    }

    /**
     * Tells whether the manifest has SHA-256 digests, so that {@link SnapshotStore#verify} compares
     * contents.
     *
     * @return true if it has
     */
    public boolean hasDigests() {
        return digests;
    }

    @Override
    public String toString() {
        return name;
    }
}
