package com.kelvane.media;

/** The native library, for this package: its absence is a {@link MediaException} here, and it prints nothing by itself. */
final class Natives {
    private Natives() {
    }

    static void load() {
        try {
            NativeLibrary.load();
        } catch (UnsatisfiedLinkError missing) {
            throw new MediaException(missing.getMessage(), missing);
        }
        NativeLog.Default.apply();
    }
}
