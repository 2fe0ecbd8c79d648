// SPDX-License-Identifier: Apache-2.0
package f2fs.snapshot;

import java.io.IOException;
import java.nio.file.Path;
import java.util.Optional;

/** A failed call. The message is one English sentence: what failed, why, and what to do. */
public final class SnapshotException extends IOException {
    private static final long serialVersionUID = 1;

    /** Why the call failed. */
    private final ErrorCode code;
    /** A Linux errno value, or 0. */
    private final int osError;
    /** The path that it is about, in bytes; empty if none. */
    private final byte[] path;

    /** Called by native code as well. */
    SnapshotException(int code, int osError, byte[] path, byte[] message) {
        this(ErrorCode.of(code), osError, path, FileNames.text(message));
    }

    SnapshotException(ErrorCode code, int osError, byte[] path, String message) {
        super(message);
        this.code = code;
        this.osError = osError;
        this.path = path;
    }

    /**
     * Why the call failed.
     *
     * @return the code
     */
    public ErrorCode code() {
        return code;
    }

    /**
     * The error of the system call that failed.
     *
     * @return a Linux errno value, or 0
     */
    public int osError() {
        return osError;
    }

    /**
     * The path that the failure is about.
     *
     * @return the path, or nothing if it is about none
     */
    public Optional<Path> path() {
        return path.length == 0 ? Optional.empty() : Optional.of(FileNames.path(path));
    }
}
