package com.kelvane.media;

import java.util.List;

/** What {@link TranscoderMonitor} shows of a transcoder. All figures are counted from its opening. */
public interface TranscoderMXBean {
    /** {@return pictures decoded} A stream that is dead, or waits for a key picture, has no more of them. */
    long getPictures();

    /** {@return seconds spent in decoding, by the clock} */
    double getDecodeSeconds();

    /** {@return whether a key picture of the source would help, see {@link Transcoder#needsKey}} */
    boolean isNeedsKey();

    /** {@return each rendition's figures, by their indices} */
    List<Figures> getRenditions();

    /** What one rendition has done, see {@link Transcoder.RenditionStatistics}. */
    interface Figures {
        /** {@return width and height, for instance "1280x720", or "source size"} */
        String getSize();

        /** {@return the target that was asked for last, in bits per second} */
        int getBitrate();

        /** {@return pictures encoded} */
        long getPictures();

        /** {@return pictures that the encoder skipped} */
        long getSkipped();

        /** {@return pictures lost because the encoder failed} */
        long getFailed();

        /** {@return bytes of all access units} */
        long getBytes();

        /** {@return seconds spent in scaling and encoding, by the clock} */
        double getEncodeSeconds();
    }
}
