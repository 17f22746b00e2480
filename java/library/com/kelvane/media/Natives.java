package com.kelvane.media;

import com.kelvane.media.transform.codec.AVCDecoder;

/** The native library, for this package: its absence is a {@link MediaException} here. */
final class Natives {
    private static volatile boolean silenced;

    private Natives() {
    }

    static void load() {
        try {
            NativeLibrary.load();
        } catch (UnsatisfiedLinkError missing) {
            throw new MediaException(missing.getMessage(), missing);
        }
        // FFmpeg tells of each damage in a stream on standard error, until opening this decoder silences it for the process;
        // a transcoder alone does not.
        if (!silenced) {
            AVCDecoder.close(AVCDecoder.open());
            silenced = true;
        }
    }
}
