package com.kelvane.media.tool.input;

import java.io.Closeable;
import java.io.IOException;

/** A sound track as AAC, whatever it was, with its times in the result. */
public interface AacSource extends Closeable {
    /**
     * One access unit.
     *
     * @param time in milliseconds; that of an encoder's lead-in, or of what a cut leaves for the decoder to begin with, is
     *     below 0
     */
    record Unit(byte[] bytes, double time) {
    }

    /** Opens a track: AAC is copied, all else decoded and encoded. */
    static AacSource open(AudioTrack track, Timeline timeline) throws IOException {
        return track.codec().equals("aac") ? new CopiedSound(track, timeline) : new EncodedSound(track, timeline);
    }

    /** The AudioSpecificConfig. */
    byte[] configuration();

    int channels();

    /** The next access unit; null at the end. */
    Unit next() throws IOException;
}
