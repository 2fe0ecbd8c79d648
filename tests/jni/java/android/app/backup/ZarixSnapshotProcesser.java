// SPDX-License-Identifier: Apache-2.0
package android.app.backup;

/** The framework's class as the library expects it: the three methods that it registers. */
public final class ZarixSnapshotProcesser {
    private ZarixSnapshotProcesser() {}

    public static native int native_createdirsnapshot(String dirpath, String dstpath);

    public static native int native_destroydirsnapshot(String dstpath);

    public static native int native_precreatedirsnapshot(String dirpath);
}
