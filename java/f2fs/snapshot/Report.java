// SPDX-License-Identifier: Apache-2.0
package f2fs.snapshot;

import java.util.Arrays;
import java.util.Collections;
import java.util.List;

/** The findings of a call, and the number of entries that it met. */
public final class Report {
    private final List<Finding> findings;
    private final long files;
    private final long directories;
    private final long links;
    private final long bytes;

    /** Called by native code. */
    private Report(Finding[] findings, long files, long directories, long links, long bytes) {
        this.findings = Collections.unmodifiableList(Arrays.asList(findings));
        this.files = files;
        this.directories = directories;
        this.links = links;
        this.bytes = bytes;
    }

    /**
     * The findings, in the order of their paths. Attributes that a restore could not set on
     * directories come last.
     *
     * @return the findings, which cannot be changed
     */
    public List<Finding> findings() {
        return findings;
    }

    /**
     * Tells whether no finding has the severity {@link Finding.Severity#FAILS}.
     *
     * @return true if the sources can be snapshotted, or the snapshot is intact
     */
    public boolean isFine() {
        return findings.stream().noneMatch(one -> one.severity() == Finding.Severity.FAILS);
    }

    /**
     * Regular files.
     *
     * @return how many
     */
    public long files() {
        return files;
    }

    /**
     * Directories.
     *
     * @return how many
     */
    public long directories() {
        return directories;
    }

    /**
     * Symbolic links.
     *
     * @return how many
     */
    public long links() {
        return links;
    }

    /**
     * The sizes of the files.
     *
     * @return bytes in all
     */
    public long bytes() {
        return bytes;
    }
}
