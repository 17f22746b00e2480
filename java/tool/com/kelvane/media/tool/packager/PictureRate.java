package com.kelvane.media.tool.packager;

import java.util.ArrayDeque;
import java.util.Deque;

/** Pictures a second, where they come the fastest for about a second: what FRAME-RATE says of sources with a rate that varies. */
public final class PictureRate {
    private static final double TOLERANCE = 0.05; // times are rounded

    private final Deque<Long> last = new ArrayDeque<>(); // a second and the picture before
    private double fastest;

    /** Adds a picture; its time in milliseconds, rising. */
    public void add(long time) {
        last.add(time);
        while (last.size() > 1 && time - last.peek() >= 1000) {
            fastest = Math.max(fastest, 1000.0 * (last.size() - 1) / (time - last.poll()));
        }
    }

    /** {@return the rate that was measured; 0 for less than a second} */
    public double fastest() {
        return fastest;
    }

    /** {@return the rate that was announced, where it comes near to one that was measured; else the latter} */
    public static double of(double announced, double fastest) {
        return fastest == 0 || Math.abs(fastest / announced - 1) <= TOLERANCE ? announced : fastest;
    }
}
