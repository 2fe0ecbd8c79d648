// SPDX-License-Identifier: Apache-2.0

/** Loads the library, args[0]. */
final class LoadLibrary {
    private LoadLibrary() {}

    public static void main(String[] args) {
        System.load(args[0]);
        System.out.println("loaded");
    }
}
