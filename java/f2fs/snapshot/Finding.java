// SPDX-License-Identifier: Apache-2.0
package f2fs.snapshot;

import java.nio.file.Path;

/** What was found about a path. */
public final class Finding {
    /** How much a finding matters. */
    public enum Severity {
        /** The call fails, or the snapshot is not what it should be. */
        FAILS(1),
        /** The call can succeed, but does not promise this path. */
        UNCOVERED(2),
        /** Worth knowing. */
        NOTE(3);

        final int number;

        Severity(int number) {
            this.number = number;
        }
    }

    /** What was found. */
    public enum Kind {
        /** Check and create: the volume has no snapshot requests. */
        NO_DRIVER(1),
        /** Check and create: not a directory, regular file or link. */
        ENTRY_TYPE(2),
        /** Check and create: the file has 2 to 4 GiB, 6 to 8 GiB, and so on. */
        FILE_SIZE(3),
        /** Check and create: the file cannot be opened to read and write. */
        FILE_ACCESS(4),
        /** Check and create: the directory cannot be read, searched and written. */
        DIRECTORY_ACCESS(5),
        /** Check and create: the path in the snapshot would be too long. */
        PATH_LENGTH(6),
        /** Check and create: too few descriptors for so deep a tree. */
        DEPTH(7),
        /** Check and create: not covered against its other names. */
        HARD_LINK(8),
        /** Check and create: a file system is mounted below a source. */
        MOUNT(9),
        /** Check and create: not on the store's volume. */
        OTHER_VOLUME(10),
        /** Check: the command-line tool f2fs_snapshot cannot take this source. */
        SEMICOLON(11),
        /** Create: a new name. */
        APPEARED(20),
        /** Create: a name that is gone. */
        VANISHED(21),
        /** Create: the name of another file, directory or link. */
        REPLACED(22),
        /** Create: names came and went, or the directory's attributes changed. */
        DIRECTORY_CHANGED(23),
        /** Create: a check pass could not read all of the directory. */
        DIRECTORY_UNREADABLE(24),
        /** Create: the snapshot differs from both listings. */
        NOT_TAKEN(25),
        /** Verify and restore: the snapshot has lost it. */
        MISSING(40),
        /** Verify and restore: the manifest does not have it. */
        UNEXPECTED(41),
        /** Verify and restore: another type than in the manifest. */
        TYPE_DIFFERS(42),
        /** Verify and restore: another size than in the manifest. */
        SIZE_DIFFERS(43),
        /** Verify and restore: another link text than in the manifest. */
        LINK_DIFFERS(44),
        /** Verify and restore: other contents than in the manifest. */
        DIGEST_DIFFERS(45),
        /** Verify and restore: it cannot be read. */
        UNREADABLE(46),
        /** Restore: the owner could not be set. */
        OWNER_NOT_SET(60),
        /** Restore: an attribute could not be set. */
        ATTRIBUTE_NOT_SET(61),
        /** Restore: names of one file hold different contents. */
        LINK_NOT_SET(62),
        /** Restore with overwrite, dry run: something is in the way. */
        IN_THE_WAY(63),
        /** A finding that this version does not know. */
        OTHER(0);

        final int number;

        Kind(int number) {
            this.number = number;
        }
    }

    private final byte[] path;
    private final Kind kind;
    private final Severity severity;
    private final int osError;
    private final String message;

    /** Called by native code. */
    private Finding(byte[] path, int kind, int severity, int osError, byte[] message) {
        this.path = path;
        this.kind = kindOf(kind);
        this.severity = severityOf(severity);
        this.osError = osError;
        this.message = FileNames.text(message);
    }

    private static Kind kindOf(int number) {
        for (Kind kind : Kind.values()) {
            if (kind.number == number) {
                return kind;
            }
        }
        return Kind.OTHER;
    }

    private static Severity severityOf(int number) {
        for (Severity severity : Severity.values()) {
            if (severity.number == number) {
                return severity;
            }
        }
        return Severity.FAILS;
    }

    /**
     * The path that the finding is about.
     *
     * @return the path, absolute
     */
    public Path path() {
        return FileNames.path(path);
    }

    /**
     * What was found.
     *
     * @return the kind
     */
    public Kind kind() {
        return kind;
    }

    /**
     * How much the finding matters.
     *
     * @return the severity
     */
    public Severity severity() {
        return severity;
    }

    /**
     * The error of the system call that led to the finding.
     *
     * @return a Linux errno value, or 0
     */
    public int osError() {
        return osError;
    }

    /**
     * One sentence that includes the path.
     *
     * @return the sentence
     */
    public String message() {
        return message;
    }

    @Override
    public String toString() {
        return message;
    }
}
