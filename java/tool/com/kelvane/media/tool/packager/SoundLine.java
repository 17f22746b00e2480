package com.kelvane.media.tool.packager;

import java.io.ByteArrayOutputStream;

/**
 * Puts units of AAC one behind the other, from the beginning of the pictures to their end: players that are given each track
 * apart close the holes between units, and put both tracks' first segments on the same moment. Where there is no sound for a
 * unit's length or longer there are units of silence. Times that containers have rounded, or encoders made uneven, become even.
 */
public final class SoundLine {
    /** Samples of a unit, as a rule. */
    public static final int UNIT = 1024;
    private static final double SMALLEST_HOLE = 0.75; // of a unit, whose time differs by less for other reasons
    private static final double ROUNDING = 0.002;            // seconds
    private static final int[][] ELEMENTS = {{}, {0}, {1}, {0, 1}, {0, 1, 0}, {0, 1, 1}, {0, 1, 1, 3}, {0, 1, 1, 1, 3}};
    private static final int PAIR = 1;
    private static final int END = 7;

    /** Takes units. */
    public interface Sink<E extends Exception> {
        /** @param time of its first sample, in ticks */
        void write(byte[] unit, long time) throws E;
    }

    private final int timescale;
    private final long origin;
    private final byte[] silence;
    private final int unit; // samples
    private boolean begun;
    private long next;
    private int filled;
    private int leftOut;

    /**
     * @param configuration the AudioSpecificConfig
     * @param timescale ticks of a second: the sampling rate that it says
     * @param origin when the pictures begin, in milliseconds
     */
    public SoundLine(byte[] configuration, int timescale, double origin) {
        this.timescale = timescale;
        this.origin = ticks(origin);
        silence = silence(configuration);
        unit = hasFewerSamples(configuration) ? UNIT * 15 / 16 : UNIT;
    }

    private long ticks(double milliseconds) {
        return Math.round(milliseconds * timescale / 1000);
    }

    /** Adds a unit; its time in milliseconds. */
    public <E extends Exception> void add(byte[] bytes, double time, Sink<E> sink) throws E {
        long at = ticks(time);
        if (!begun) {
            begin(at);
        }
        double away = (double) (at - next) / unit;
        long step = Math.abs(away) < SMALLEST_HOLE ? 0 : Math.round(away);
        if (step < 0) {
            leftOut++; // it overlaps those before
            return;
        }
        fill(step, sink);
        sink.write(bytes, next);
        next += unit;
    }

    /** Begins with silence where the pictures do, unless sound has come before. */
    public void begin() {
        if (!begun && silence != null) {
            begun = true;
            next = origin;
        }
    }

    private void begin(long first) {
        long rest = Math.floorMod(first - origin, (long) unit);
        long aside = rest > unit / 2 ? rest - unit : rest;
        long even = Math.abs(aside) <= ROUNDING * timescale ? first - aside : first;
        begun = true;
        next = even > origin && silence != null ? origin + Math.floorMod(even - origin, (long) unit) : even;
    }

    private <E extends Exception> void fill(long units, Sink<E> sink) throws E {
        for (long i = 0; i < units; i++) {
            if (silence != null) {
                sink.write(silence, next);
                filled++;
            }
            next += unit;
        }
    }

    /** Adds silence up to a time, in milliseconds, if any sound has come. */
    public <E extends Exception> void fill(double until, Sink<E> sink) throws E {
        if (begun && silence != null) {
            fill(Math.round((double) (ticks(until) - next) / unit), sink);
        }
    }

    /** {@return where the next unit belongs, in ticks} */
    public long next() {
        return next;
    }

    /** {@return units of silence that were added} */
    public int filled() {
        return filled;
    }

    /** {@return units that had no room} */
    public int leftOut() {
        return leftOut;
    }

    /**
     * A unit of silence: elements without spectrum, of which all bits but the kind and the number are 0.
     *
     * @return null where the configuration is none of the usual ones
     */
    static byte[] silence(byte[] configuration) {
        int type = configuration.length < 2 ? 0 : (configuration[0] & 0xff) >> 3;
        int rate = configuration.length < 2 ? 15 : (configuration[0] & 7) << 1 | (configuration[1] & 0xff) >> 7;
        int layout = configuration.length < 2 ? 0 : configuration[1] >> 3 & 15;
        boolean usual = type == 1 || type == 2 || type == 4 || type == 5 || type == 29; // those with AAC's own syntax
        if (!usual || rate == 15 || layout == 0 || layout >= ELEMENTS.length) {
            return null;
        }
        StringBuilder bits = new StringBuilder();
        int[] numbers = new int[END];
        for (int kind : ELEMENTS[layout]) {
            bits.append(binary(kind, 3)).append(binary(numbers[kind]++, 4)).append("0".repeat(kind == PAIR ? 1 + 2 * 22 : 22));
        }
        bits.append(binary(END, 3));
        ByteArrayOutputStream bytes = new ByteArrayOutputStream();
        for (int i = 0; i < bits.length(); i += 8) {
            String eight = (bits.substring(i, Math.min(i + 8, bits.length())) + "0000000").substring(0, 8);
            bytes.write(Integer.parseInt(eight, 2));
        }
        return bytes.toByteArray();
    }

    /** Whether units have 960 samples, as in digital radio. */
    private static boolean hasFewerSamples(byte[] configuration) {
        int type = configuration.length < 2 ? 0 : (configuration[0] & 0xff) >> 3;
        int bit = type == 5 || type == 29 ? 22 : 13; // behind the rate and kind of band replication
        return type > 0 && type < 31 && configuration.length > bit / 8 && (configuration[bit / 8] >> 7 - bit % 8 & 1) == 1;
    }

    private static String binary(int value, int digits) {
        return Integer.toBinaryString(1 << digits | value).substring(1);
    }
}
