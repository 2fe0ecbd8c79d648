// SPDX-License-Identifier: Apache-2.0
package f2fs.snapshot;

import java.time.Duration;
import java.util.Objects;

/**
 * Which snapshots are kept.
 *
 * <p>Each rule keeps the newest snapshot of each of the newest N hours, days, ISO weeks, months or
 * years that have one, in local time. Each rule counts separately. A rule that finds fewer than N
 * also keeps the oldest snapshot. A snapshot that no rule keeps is removed, except the newest whole
 * one. At least one rule must be given.
 *
 * <p>A {@link Snapshot} that a program has open counts like any other and can be removed, also if it
 * is not kept.
 */
public final class PruneOptions {
    final int last;
    final int hourly;
    final int daily;
    final int weekly;
    final int monthly;
    final int yearly;
    final long within;
    final boolean dryRun;
    final ProgressListener progress;
    final CancelToken cancel;

    private PruneOptions(Builder builder) {
        last = builder.last;
        hourly = builder.hourly;
        daily = builder.daily;
        weekly = builder.weekly;
        monthly = builder.monthly;
        yearly = builder.yearly;
        within = builder.within;
        dryRun = builder.dryRun;
        progress = builder.progress;
        cancel = builder.cancel;
    }

    /**
     * Returns a builder without a rule.
     *
     * @return a builder
     */
    public static Builder builder() {
        return new Builder();
    }

    /** Collects rules and options. Its functions return the builder itself. */
    public static final class Builder {
        private int last;
        private int hourly;
        private int daily;
        private int weekly;
        private int monthly;
        private int yearly;
        private long within;
        private boolean dryRun;
        private ProgressListener progress;
        private CancelToken cancel;

        private Builder() {}

        /**
         * Keeps the newest snapshots.
         *
         * @param count how many; 0: no such rule
         * @return this
         */
        public Builder keepLast(int count) {
            last = requireCount(count);
            return this;
        }

        /**
         * Keeps one snapshot of each of the newest hours that have one.
         *
         * @param count of how many hours; 0: no such rule
         * @return this
         */
        public Builder keepHourly(int count) {
            hourly = requireCount(count);
            return this;
        }

        /**
         * Keeps one snapshot of each of the newest days that have one.
         *
         * @param count of how many days; 0: no such rule
         * @return this
         */
        public Builder keepDaily(int count) {
            daily = requireCount(count);
            return this;
        }

        /**
         * Keeps one snapshot of each of the newest ISO weeks that have one.
         *
         * @param count of how many weeks; 0: no such rule
         * @return this
         */
        public Builder keepWeekly(int count) {
            weekly = requireCount(count);
            return this;
        }

        /**
         * Keeps one snapshot of each of the newest months that have one.
         *
         * @param count of how many months; 0: no such rule
         * @return this
         */
        public Builder keepMonthly(int count) {
            monthly = requireCount(count);
            return this;
        }

        /**
         * Keeps one snapshot of each of the newest years that have one.
         *
         * @param count of how many years; 0: no such rule
         * @return this
         */
        public Builder keepYearly(int count) {
            yearly = requireCount(count);
            return this;
        }

        /**
         * Keeps all snapshots that are less than this much older than the newest.
         *
         * @param value the time span, rounded up to seconds; zero: no such rule
         * @return this
         */
        public Builder keepWithin(Duration value) {
            within = Limits.seconds("keepWithin", value, 0, Long.MAX_VALUE);
            return this;
        }

        /**
         * Changes nothing and reports what would be removed. Default: false.
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
         * Sets a token that can cancel the call. Snapshots that have been removed before stay
         * removed. Default: none.
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
        public PruneOptions build() {
            return new PruneOptions(this);
        }

        private static int requireCount(int count) {
            return (int) Limits.require("count", count, 0, Integer.MAX_VALUE);
        }
    }
}
