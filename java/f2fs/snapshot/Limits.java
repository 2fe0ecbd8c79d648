// SPDX-License-Identifier: Apache-2.0
package f2fs.snapshot;

import java.time.Duration;

/** Ranges of numbers in options. */
final class Limits {
    static final long UINT32_MAX = 0xFFFF_FFFFL;

    private Limits() {}

    static long require(String what, long value, long least, long most) {
        if (value < least || value > most) {
            throw new IllegalArgumentException(
                    what + " is " + value + ", and has to be " + least + " to " + most);
        }
        return value;
    }

    /** Rounds up. */
    static long seconds(String what, Duration value, long least, long most) {
        long seconds = value.getSeconds();
        if (value.getNano() > 0 && seconds >= 0 && seconds < Long.MAX_VALUE) {
            seconds++;
        }
        return require("seconds of " + what, seconds, least, most);
    }
}
