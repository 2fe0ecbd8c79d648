// SPDX-License-Identifier: Apache-2.0
package f2fs.snapshot;

import java.nio.file.Path;
import java.util.ArrayList;
import java.util.Arrays;
import java.util.List;
import java.util.Objects;

/** Which part of a snapshot is restored, and how. */
public final class RestoreOptions {
    final Path[] paths;
    final boolean overwrite;
    final boolean dryRun;
    final ProgressListener progress;
    final CancelToken cancel;

    private RestoreOptions(Builder builder) {
        paths = builder.paths.toArray(new Path[0]);
        overwrite = builder.overwrite;
        dryRun = builder.dryRun;
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
        private final List<Path> paths = new ArrayList<>();
        private boolean overwrite;
        private boolean dryRun;
        private ProgressListener progress;
        private CancelToken cancel;

        private Builder() {}

        /**
         * Adds files or directories, by the paths that they had in the sources. Default:
         * everything.
         *
         * @param values the paths
         * @return this
         */
        public Builder paths(Path... values) {
            paths.addAll(Arrays.asList(values));
            return this;
        }

        /**
         * Restores into a destination that is not empty: files and links that exist are replaced,
         * each in one step; nothing else is removed. Default: the destination has to be empty or
         * missing.
         *
         * @param value true to overwrite
         * @return this
         */
        public Builder overwrite(boolean value) {
            overwrite = value;
            return this;
        }

        /**
         * Changes nothing and reports what would be restored, and what is in the way. Default:
         * false.
         *
         * @param value true to change nothing
         * @return this
         */
        public Builder dryRun(boolean value) {
            dryRun = value;
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
        public RestoreOptions build() {
            return new RestoreOptions(this);
        }
    }
}
