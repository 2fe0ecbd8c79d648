// SPDX-License-Identifier: Apache-2.0
package f2fs.snapshot;

/** Why a call failed. */
public enum ErrorCode {
    /** A parameter that no call could accept. */
    ARGUMENT(1),
    /** A system call failed, with {@link SnapshotException#osError()}. */
    SYSTEM(2),
    /** The directory cannot serve as a store. */
    STORE(3),
    /** A source cannot be snapshotted into this store. */
    SOURCE(4),
    /** A name that no snapshot can have. */
    NAME(5),
    /** A snapshot or file of that name is there already. */
    EXISTS(6),
    /** No snapshot of that name. */
    NOT_FOUND(7),
    /** Another call holds the store, a source or a snapshot. */
    BUSY(8),
    /** The {@link CancelToken} was cancelled. */
    CANCELLED(9),
    /** The time limit has passed. */
    TIMEOUT(10),
    /** The snapshot library failed or died. */
    LIBRARY(11),
    /** {@link CreateOptions.Builder#strict} only: the snapshot would not be whole. */
    NOT_WHOLE(12),
    /** A damaged snapshot, or one of an unknown format. */
    FORMAT(13),
    /** The volume has no driver for snapshots. */
    UNSUPPORTED(14),
    /** Native memory is exhausted. */
    MEMORY(15),
    /** Anything else: a defect. */
    INTERNAL(16);

    final int number;

    ErrorCode(int number) {
        this.number = number;
    }

    static ErrorCode of(int number) {
        for (ErrorCode code : values()) {
            if (code.number == number) {
                return code;
            }
        }
        return INTERNAL;
    }
}
