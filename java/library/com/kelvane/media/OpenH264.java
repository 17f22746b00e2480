package com.kelvane.media;

import com.kelvane.media.transform.codec.AVCEncoder;

/** Sees to it that the OpenH264 library is loaded before an encoder opens, from the first place that has it. */
final class OpenH264 {
    private static boolean loaded;

    private OpenH264() {
    }

    /** @throws MediaException if no place has one that will do; the message lists them */
    static synchronized void load() {
        if (loaded) {
            return;
        }
        StringBuilder failure = new StringBuilder("OpenH264, which encodes H.264, could not be loaded. Tried:");
        for (String place : NativeLibrary.openH264Places()) {
            if (AVCEncoder.loadLibrary(place) == 1) {
                loaded = true;
                return;
            }
            failure.append("\n  ").append(place).append(": ").append(AVCEncoder.problem(place));
        }
        throw new MediaException(failure.append("\nTo fix it, add the natives jar (classifier " + NativeLibrary.PLATFORM + "), install the"
                + " library (Debian: libopenh264-7 or -8) or name it with -Dkelvane.openh264=/path/to/libopenh264.so").toString());
    }
}
