// SPDX-License-Identifier: Apache-2.0
package f2fs.snapshot;

import java.util.Arrays;
import java.util.Collections;
import java.util.List;

/** What became of a snapshot when its store was pruned. */
public final class PruneEntry {
    private final String name;
    private final boolean kept;
    private final List<String> reasons;

    /** Called by native code. */
    private PruneEntry(byte[] name, boolean kept, byte[] reasons) {
        this.name = FileNames.text(name);
        this.kept = kept;
        this.reasons = reasons.length == 0
                ? Collections.<String>emptyList()
                : Collections.unmodifiableList(Arrays.asList(FileNames.text(reasons).split(", ")));
    }

    /**
     * The snapshot's name, with U+FFFD for what is not text in UTF-8.
     *
     * @return the name
     */
    public String name() {
        return name;
    }

    /**
     * Tells whether the snapshot was kept.
     *
     * @return false if it was removed, or with a dry run would be
     */
    public boolean isKept() {
        return kept;
    }

    /**
     * The rules that keep it, like {@code last} and {@code daily}.
     *
     * @return nothing if it is not kept
     */
    public List<String> reasons() {
        return reasons;
    }

    @Override
    public String toString() {
        return name + ": " + (kept ? "kept (" + String.join(", ", reasons) + ")" : "removed");
    }
}
