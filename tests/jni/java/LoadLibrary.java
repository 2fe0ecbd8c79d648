// SPDX-License-Identifier: Apache-2.0
import android.app.backup.ZarixSnapshotProcesser;

/** Loads the library, args[0], and with further arguments calls a registered method. */
final class LoadLibrary {
    private LoadLibrary() {}

    public static void main(String[] args) {
        System.load(args[0]);
        System.out.println("loaded");
        if (args.length > 1) {
            ZarixSnapshotProcesser.native_destroydirsnapshot("/target");
        }
    }
}
