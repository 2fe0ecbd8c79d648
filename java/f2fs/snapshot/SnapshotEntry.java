// SPDX-License-Identifier: Apache-2.0
package f2fs.snapshot;

import java.util.Optional;

/** One line of a listing: a snapshot, or the reason why it cannot be used. */
public final class SnapshotEntry {
    private final String name;
    private final SnapshotInfo info;
    private final SnapshotException problem;

    /** Called by native code. Either info or problem is null. */
    private SnapshotEntry(byte[] name, SnapshotInfo info, SnapshotException problem) {
        this.name = FileNames.text(name);
        boolean isText = FileNames.isText(name);
        this.info = isText ? info : null;
        this.problem = isText ? problem
                              : new SnapshotException(ErrorCode.NAME, 0, new byte[0],
                                      "the name \"" + this.name + "\" is not text in UTF-8: "
                                              + "Java cannot use this snapshot");
    }

    /**
     * The snapshot's name. If it is not text in UTF-8, U+FFFD stands for what cannot be decoded,
     * and {@link #problem} says so.
     *
     * @return the name
     */
    public String name() {
        return name;
    }

    /**
     * What is known about the snapshot.
     *
     * @return nothing if there is a problem
     */
    public Optional<SnapshotInfo> info() {
        return Optional.ofNullable(info);
    }

    /**
     * Why the snapshot cannot be used: {@link ErrorCode#FORMAT} if it is damaged or of an unknown
     * format.
     *
     * @return nothing if there is no problem
     */
    public Optional<SnapshotException> problem() {
        return Optional.ofNullable(problem);
    }

    @Override
    public String toString() {
        return problem == null ? name : name + ": " + problem.getMessage();
    }
}
