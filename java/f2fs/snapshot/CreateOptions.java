// SPDX-License-Identifier: Apache-2.0
package f2fs.snapshot;

import java.nio.file.Path;
import java.time.Duration;
import java.util.Objects;

/** How a snapshot is made. */
public final class CreateOptions {
    final String name;
    final boolean strict;
    final boolean digests;
    final int attempts;
    final long timeLimit;
    final Path helper;
    final ProgressListener progress;
    final CancelToken cancel;

    private CreateOptions(Builder builder) {
        name = builder.name;
        strict = builder.strict;
        digests = builder.digests;
        attempts = builder.attempts;
        timeLimit = builder.timeLimit;
        helper = builder.helper;
        progress = builder.progress;
        cancel = builder.cancel;
    }

    /**
     * Returns a builder with the defaults.
     *
     * @return a builder
     */
    public static Builder builder() {
        return new Builder();
    }

    /** Collects options. Its functions return the builder itself. */
    public static final class Builder {
        private String name;
        private boolean strict;
        private boolean digests;
        private int attempts;
        private long timeLimit;
        private Path helper;
        private ProgressListener progress;
        private CancelToken cancel;

        private Builder() {}

        /**
         * Names the snapshot. Default: the time in UTC, like {@code 2026-01-31T23-59-59.123Z}.
         *
         * @param value 1 to 100 bytes of UTF-8, without slash and control characters; it does not
         *     begin with a dot
         * @return this
         */
        public Builder name(String value) {
            name = Objects.requireNonNull(value);
            return this;
        }

        /**
         * Lets create fail with {@link ErrorCode#NOT_WHOLE} unless the snapshot is whole and no
         * file has two names. Default: such a snapshot is kept, and {@link SnapshotInfo#findings}
         * says why.
         *
         * @param value true to fail
         * @return this
         */
        public Builder strict(boolean value) {
            strict = value;
            return this;
        }

        /**
         * Records SHA-256 digests of the files, for {@link SnapshotStore#verify}. Default: none.
         *
         * @param value true to record them
         * @return this
         */
        public Builder digests(boolean value) {
            digests = value;
            return this;
        }

        /**
         * Limits how often the snapshot library is called. Default: 3.
         *
         * @param value at least 1
         * @return this
         */
        public Builder attempts(int value) {
            attempts = (int) Limits.require("attempts", value, 1, Integer.MAX_VALUE);
            return this;
        }

        /**
         * Limits the time of one call of the snapshot library. After it, create fails with {@link
         * ErrorCode#TIMEOUT}. Default: one hour.
         *
         * @param value more than 0; rounded up to seconds
         * @return this
         */
        public Builder timeLimit(Duration value) {
            timeLimit = Limits.seconds("timeLimit", value, 1, Limits.UINT32_MAX);
            return this;
        }

        /**
         * Sets the program {@code f2fs_snapshot_helper}. Default: as installed with the library.
         *
         * @param value its path
         * @return this
         */
        public Builder helper(Path value) {
            helper = Objects.requireNonNull(value);
            return this;
        }

        /**
         * Sets a listener for the call's progress. Default: none.
         *
         * @param value the listener
         * @return this
         */
        public Builder progress(ProgressListener value) {
            progress = Objects.requireNonNull(value);
            return this;
        }

        /**
         * Sets a token that can cancel the call. Default: none.
         *
         * @param value the token
         * @return this
         */
        public Builder cancel(CancelToken value) {
            cancel = Objects.requireNonNull(value);
            return this;
        }

        /**
         * Builds the options as set so far.
         *
         * @return immutable options, for any number of calls
         */
        public CreateOptions build() {
            return new CreateOptions(this);
        }
    }
}
