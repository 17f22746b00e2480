package com.kelvane.media;

/** What builders check their settings with. */
final class Settings {
    // What OpenH264 accepts. It takes longer sides too, but no decoder has to.
    static final int SMALLEST_SIDE = 16;
    static final int LARGEST_SIDE = 8192;
    static final int LARGEST_AREA = 4096 * 2304;
    static final int SMALLEST_BITRATE = 1000;
    static final int LARGEST_BITRATE = 288_000_000;
    static final int LARGEST_FRAME_RATE = 60;

    private Settings() {
    }

    static int bitrate(int bitsPerSecond) {
        return check("bitrate", bitsPerSecond, SMALLEST_BITRATE, LARGEST_BITRATE, "bits per second");
    }

    static int frameRate(int picturesPerSecond) {
        return check("frameRate", picturesPerSecond, 1, LARGEST_FRAME_RATE, "pictures per second");
    }

    static String wrongArea(int width, int height) {
        return "size is " + width + "x" + height + ", allowed are as many pixels as 4096x2304 has";
    }

    static int timescale(int ticksPerSecond) {
        return check("timescale", ticksPerSecond, 1, Times.NANOSECONDS, "ticks a second");
    }

    /** @throws IllegalArgumentException if the value is out of range; the message says what is allowed */
    static int check(String name, int value, int smallest, int largest, String unit) {
        if (value < smallest || value > largest) {
            throw new IllegalArgumentException(name + " is " + value + ", allowed are " + smallest + " to " + largest + " "
                    + unit);
        }
        return value;
    }
}
