// SPDX-License-Identifier: Apache-2.0
package f2fs.snapshot;

/** What a call is doing. */
public final class Progress {
    /** The steps of calls. */
    public enum Phase {
        /** The sources are listed, before and after. */
        LIST(1),
        /** Files are snapshotted. */
        CREATE(2),
        /** A pass looks for files that changed meanwhile. */
        CHECK(3),
        /** The manifest is written. */
        RECORD(4),
        /** What was made is written to the disk. */
        SYNC(5),
        /** A snapshot is compared with its manifest. */
        VERIFY(6),
        /** Files are copied out. */
        RESTORE(7),
        /** A snapshot, or what a failure left, is removed. */
        REMOVE(8),
        /** A step that this version does not know. */
        OTHER(0);

        final int number;

        Phase(int number) {
            this.number = number;
        }

        static Phase of(int number) {
            for (Phase phase : values()) {
                if (phase.number == number) {
                    return phase;
                }
            }
            return OTHER;
        }
    }

    private final Phase phase;
    private final int attempt;
    private final int pass;
    private final long filesDone;
    private final long filesTotal;
    private final long filesAgain;

    private Progress(
            int phase, int attempt, int pass, long filesDone, long filesTotal, long filesAgain) {
        this.phase = Phase.of(phase);
        this.attempt = attempt;
        this.pass = pass;
        this.filesDone = filesDone;
        this.filesTotal = filesTotal;
        this.filesAgain = filesAgain;
    }

    /** Called by native code. */
    static void report(ProgressListener listener, int phase, int attempt, int pass, long filesDone,
            long filesTotal, long filesAgain) {
        listener.onProgress(
                new Progress(phase, attempt, pass, filesDone, filesTotal, filesAgain));
    }

    /**
     * The current step.
     *
     * @return the phase
     */
    public Phase phase() {
        return phase;
    }

    /**
     * How often the snapshot library has been called.
     *
     * @return the attempt, from 1
     */
    public int attempt() {
        return attempt;
    }

    /**
     * How often the files have been checked in this attempt.
     *
     * @return the check pass, from 1; 0 before the first
     */
    public int pass() {
        return pass;
    }

    /**
     * Regular files done in this phase; in later passes, in this pass.
     *
     * @return a number of files
     */
    public long filesDone() {
        return filesDone;
    }

    /**
     * Regular files of this phase.
     *
     * @return a number of files, 0 while unknown
     */
    public long filesTotal() {
        return filesTotal;
    }

    /**
     * Files snapshotted again so far in this attempt, because they changed meanwhile.
     *
     * @return a number of files
     */
    public long filesAgain() {
        return filesAgain;
    }

    @Override
    public String toString() {
        return phase + " " + filesDone + "/" + filesTotal;
    }
}
