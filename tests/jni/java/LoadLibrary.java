import android.app.backup.ZarixSnapshotProcesser;

/** Loads the library, args[0], and calls the registered method that args[1] names, if any. */
final class LoadLibrary {
    private LoadLibrary() {}

    public static void main(String[] args) {
        System.load(args[0]);
        System.out.println("loaded");
        switch (args.length > 1 ? args[1] : "") {
            case "create":
                ZarixSnapshotProcesser.native_createdirsnapshot("/source", "/target");
                break;
            case "destroy":
                ZarixSnapshotProcesser.native_destroydirsnapshot("/target");
                break;
            case "precreate":
                ZarixSnapshotProcesser.native_precreatedirsnapshot("/source");
                break;
            default:
                break;
        }
    }
}
