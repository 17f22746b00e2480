package com.kelvane.media.tool.output;

import java.util.Arrays;
import java.util.BitSet;

/** What became of each picture of a rendition. */
public final class PictureFigures {
    private long[] times = new long[1024]; // ms
    private int[] bytes = new int[1024];
    private final BitSet keys = new BitSet();
    private double[] psnr = {};
    private int count;

    public void add(long time, int size, boolean key) {
        if (count == times.length) {
            times = Arrays.copyOf(times, 2 * count);
            bytes = Arrays.copyOf(bytes, 2 * count);
        }
        times[count] = time;
        bytes[count] = size;
        keys.set(count++, key);
    }

    public int count() {
        return count;
    }

    /** Presentation time in milliseconds. */
    public long time(int picture) {
        return times[picture];
    }

    public long bits(int picture) {
        return 8L * bytes[picture];
    }

    public boolean isKey(int picture) {
        return keys.get(picture);
    }

    /** Takes what a comparison measured, if that was of every picture. */
    void measured(double[] decibels) {
        psnr = decibels.length == count ? decibels : new double[0];
    }

    /** Whether {@link #psnr} is known. */
    public boolean hasPsnr() {
        return psnr.length > 0;
    }

    /** PSNR-Y in dB, infinite when nothing differs. */
    public double psnr(int picture) {
        return psnr[picture];
    }
}
