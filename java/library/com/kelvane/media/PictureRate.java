package com.kelvane.media;

/**
 * How many pictures a second a rendition is given, by their times: over the last half second, or the last interval where
 * that is longer. One thread uses it.
 */
final class PictureRate {
    private static final int WINDOW = 500; // milliseconds, within which times of whole ones are 0.4 % off at most
    // A longer interval is a pause, which says nothing about the rate, unless it follows another one.
    private static final int PAUSE = 1000;
    private static final float SLOWEST = 1; // what OpenH264 takes
    private static final float FASTEST = 60;
    // Less than this off, the encoder is left alone: 33 ms, and 30000/1001 pictures a second, count as 30 a second.
    private static final float TOLERANCE = 0.02f;
    private static final float TOLERANCE_AT_FIRST = 0.05f; // over a shorter time than the window

    private final long[] times = new long[64];
    private long pictures; // since the last pause; the times of the last 64 are kept
    private long first; // the number of the picture that begins the window
    private boolean paused;
    private float told;

    /** @param told what the encoder has been told */
    PictureRate(float told) {
        this.told = told;
    }

    /**
     * Counts a picture.
     *
     * @param time in milliseconds
     * @return what the encoder is to be told now, in pictures a second; 0 when it knows
     */
    float next(long time) {
        long interval = pictures == 0 ? 0 : time - timeOf(pictures - 1);
        if (interval > PAUSE || interval < 0) {
            boolean again = paused && interval > PAUSE;
            pictures = first = 0;
            paused = interval > PAUSE;
            add(time);
            return again ? tell(SLOWEST, 0) : 0;
        }
        if (pictures == 0 || interval > 0) {
            add(time);
        }
        if (pictures < 2) {
            return 0;
        }
        paused = false;
        while (time - timeOf(first + 1) >= WINDOW || pictures - first > times.length) {
            first++;
        }
        long span = time - timeOf(first);
        float rate = (pictures - 1 - first) * 1000f / span;
        return tell(Math.min(FASTEST, Math.max(SLOWEST, rate)), span >= WINDOW ? TOLERANCE : TOLERANCE_AT_FIRST);
    }

    private void add(long time) {
        times[(int) (pictures++ % times.length)] = time;
    }

    private long timeOf(long picture) {
        return times[(int) (picture % times.length)];
    }

    private float tell(float rate, float tolerance) {
        if (Math.abs(rate - told) <= told * tolerance) {
            return 0;
        }
        told = rate;
        return rate;
    }
}
