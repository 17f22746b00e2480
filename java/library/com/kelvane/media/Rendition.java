package com.kelvane.media;

import java.util.Objects;
import java.util.StringJoiner;

/**
 * The settings of one rendition of a {@link Transcoder}. {@link #of} gives the size, the methods with an argument give a
 * copy with one more setting; each refuses a wrong value at once and says what is allowed:
 * <pre>{@code
 * Rendition.of(1280, 720).bitrate(2_500_000).frameRate(30).keyInterval(60)
 * }</pre>
 *
 * @param width in pixels, even, 16 to 8192; 0, together with the height, for the size of the source
 * @param height in pixels, as the width; a rendition has at most 4096 x 2304 pixels
 * @param bitrate target in bits per second, 1000 to 288000000; 0 while it is not given, which it must be
 * @param frameRate pictures per second that bits are shared out for, 1 to 60; 0 to have it follow the times of the
 *        pictures, up to 60. No picture is dropped or repeated
 * @param keyInterval pictures from one key picture to the next, 1 to 480; 0 for every four seconds at the frame rate
 * @param rateControl what the encoder holds on to
 * @param entropyCoding how symbols become bits
 * @param smallestQuantiser 1 (finest) to 51; 0 for the encoder's own choice
 * @param largestQuantiser as the smallest, and not below it
 */
public record Rendition(int width, int height, int bitrate, int frameRate, int keyInterval, RateControl rateControl,
                        EntropyCoding entropyCoding, int smallestQuantiser, int largestQuantiser) {
    private static final int LARGEST_KEY_INTERVAL = 480;
    private static final int LARGEST_QUANTISER = 51;

    /** What the encoder holds on to. */
    public enum RateControl {
        /** The bit rate. */
        BITRATE,
        /** The quality; the bit rate is a hint. */
        QUALITY
    }

    /** How symbols become bits. */
    public enum EntropyCoding {
        /** Variable-length codes, which every decoder reads. */
        CAVLC,
        /** Arithmetic coding: fewer bits for the same pictures, more work; needs the Main profile of a decoder. */
        CABAC
    }

    /**
     * A rendition with all its settings; {@link #of} and what follows it is easier to read.
     *
     * @param width in pixels
     * @param height in pixels
     * @param bitrate in bits per second
     * @param frameRate pictures per second
     * @param keyInterval in pictures
     * @param rateControl what the encoder holds on to
     * @param entropyCoding how symbols become bits
     * @param smallestQuantiser 1 to 51, or 0
     * @param largestQuantiser 1 to 51, or 0
     * @throws IllegalArgumentException if values are wrong; the message lists all of them with what is allowed
     */
    public Rendition {
        Objects.requireNonNull(rateControl, "rateControl");
        Objects.requireNonNull(entropyCoding, "entropyCoding");
        StringJoiner wrong = new StringJoiner("; ");
        if (width != 0 || height != 0) {
            side("width", width, wrong);
            side("height", height, wrong);
            if ((long) width * height > Settings.LARGEST_AREA) {
                wrong.add(Settings.wrongArea(width, height));
            }
        }
        range("bitrate", bitrate, Settings.SMALLEST_BITRATE, Settings.LARGEST_BITRATE, " bits per second", wrong);
        range("frameRate", frameRate, 1, Settings.LARGEST_FRAME_RATE, " pictures per second, or 0 to follow the pictures' times", wrong);
        range("keyInterval", keyInterval, 1, LARGEST_KEY_INTERVAL, " pictures, or 0 for every four seconds", wrong);
        range("smallestQuantiser", smallestQuantiser, 1, LARGEST_QUANTISER, ", or 0 for the encoder's choice", wrong);
        range("largestQuantiser", largestQuantiser, 1, LARGEST_QUANTISER, ", or 0 for the encoder's choice", wrong);
        if (largestQuantiser > 0 && smallestQuantiser > largestQuantiser) {
            wrong.add("smallestQuantiser " + smallestQuantiser + " is above largestQuantiser " + largestQuantiser);
        }
        if (wrong.length() > 0) {
            throw new IllegalArgumentException(wrong.toString());
        }
    }

    private static void side(String name, int pixels, StringJoiner wrong) {
        if (pixels < Settings.SMALLEST_SIDE || pixels > Settings.LARGEST_SIDE || pixels % 2 != 0) {
            wrong.add(name + " is " + pixels + ", allowed are even numbers from " + Settings.SMALLEST_SIDE + " to " + Settings.LARGEST_SIDE
                    + " pixels");
        }
    }

    private static void range(String name, int value, int smallest, int largest, String unit, StringJoiner wrong) {
        if ((value < smallest || value > largest) && value != 0) {
            wrong.add(name + " is " + value + ", allowed are " + smallest + " to " + largest + unit);
        }
    }

    /**
     * A rendition of a size of its own, with the frame rate of the pictures that it is given, a key picture every four
     * seconds, rate control by bit rate and CAVLC. Its bit rate is still to be given.
     *
     * @param width in pixels, even, 16 to 8192
     * @param height in pixels, even, 16 to 8192
     * @return the rendition
     * @throws IllegalArgumentException if a side is not allowed, or the pixels are more than 4096 x 2304
     */
    public static Rendition of(int width, int height) {
        if (width == 0 && height == 0) {
            throw new IllegalArgumentException("width and height are 0; ofSourceSize() takes the source's");
        }
        return new Rendition(width, height, 0, 0, 0, RateControl.BITRATE, EntropyCoding.CAVLC, 0, 0);
    }

    /**
     * A rendition of the size that the first picture of the source has, odd sides without their last pixel, otherwise as
     * one of {@link #of}. When that size turns out to be one that cannot be encoded (a side below 16 pixels),
     * {@link Transcoder#write} says so.
     *
     * @return the rendition
     */
    public static Rendition ofSourceSize() {
        return new Rendition(0, 0, 0, 0, 0, RateControl.BITRATE, EntropyCoding.CAVLC, 0, 0);
    }

    /**
     * Sets the target.
     *
     * @param bitsPerSecond 1000 to 288000000
     * @return a copy with this bit rate
     */
    public Rendition bitrate(int bitsPerSecond) {
        if (bitsPerSecond == 0) {
            throw new IllegalArgumentException(missingBitrate("bitrate is 0"));
        }
        return new Rendition(width, height, bitsPerSecond, frameRate, keyInterval, rateControl, entropyCoding,
                smallestQuantiser, largestQuantiser);
    }

    /**
     * Sets the rate that bits are shared out for. It should be the rate at which pictures come: a target of 800,000 bits
     * per second gives half of that when 15 pictures a second come and 30 were named. Where none is named, the rate follows
     * the pictures' times over half a second, also where the source changes its own; 30 is taken for the first picture, and
     * after a pause of more than a second what was before. A named rate makes the bytes independent of the times.
     *
     * @param picturesPerSecond 1 to 60, or 0 to follow the pictures' times
     * @return a copy with this rate
     */
    public Rendition frameRate(int picturesPerSecond) {
        return new Rendition(width, height, bitrate, picturesPerSecond, keyInterval, rateControl, entropyCoding,
                smallestQuantiser, largestQuantiser);
    }

    /**
     * Sets the distance of key pictures.
     *
     * @param pictures 1 to 480, or 0 for every four seconds
     * @return a copy with this distance of key pictures
     */
    public Rendition keyInterval(int pictures) {
        return new Rendition(width, height, bitrate, frameRate, pictures, rateControl, entropyCoding, smallestQuantiser,
                largestQuantiser);
    }

    /**
     * Sets the rate control.
     *
     * @param control what the encoder holds on to
     * @return a copy with this rate control
     */
    public Rendition rateControl(RateControl control) {
        return new Rendition(width, height, bitrate, frameRate, keyInterval, control, entropyCoding, smallestQuantiser,
                largestQuantiser);
    }

    /**
     * Sets the entropy coding.
     *
     * @param coding how symbols become bits
     * @return a copy with this entropy coding
     */
    public Rendition entropyCoding(EntropyCoding coding) {
        return new Rendition(width, height, bitrate, frameRate, keyInterval, rateControl, coding, smallestQuantiser,
                largestQuantiser);
    }

    /**
     * Bounds the quantisers.
     *
     * @param smallest 1 (finest) to 51, or 0 for the encoder's own choice
     * @param largest as the smallest, and not below it
     * @return a copy with these bounds
     */
    public Rendition quantisers(int smallest, int largest) {
        return new Rendition(width, height, bitrate, frameRate, keyInterval, rateControl, entropyCoding, smallest, largest);
    }

    /** {@return whether the rendition takes the size of the source's first picture} */
    public boolean isSourceSize() {
        return width == 0;
    }

    /** What is still wrong before a transcoder can open it; null when nothing is. */
    String missing() {
        return bitrate > 0 ? null : missingBitrate("no bit rate was given");
    }

    private static String missingBitrate(String fault) {
        return fault + ", allowed are " + Settings.SMALLEST_BITRATE + " to " + Settings.LARGEST_BITRATE + " bits per second";
    }

    /** How messages call it: its size. */
    String size() {
        return isSourceSize() ? "source size" : width + "x" + height;
    }
}
