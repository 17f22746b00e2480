package com.kelvane.media.tool.shell;

/** Says how far a run is: one line rewritten on a terminal, otherwise a plain line every few seconds. */
public final class Progress implements AutoCloseable {
    private static final double TERMINAL_INTERVAL = 0.2;
    private static final double PLAIN_INTERVAL = 5;
    private static final String CLEAR_LINE = "\r\033[K";

    private final long begin = System.nanoTime();
    private final int total;
    private double next = Caller.TERMINAL ? TERMINAL_INTERVAL : PLAIN_INTERVAL;

    /** @param total access units, or blocks of sound */
    public Progress(int total) {
        this.total = total;
    }

    /**
     * @param done access units, or blocks of sound, that are through
     * @param pictures pictures decoded; 0 says nothing of them
     * @param time presentation time reached, in milliseconds
     */
    public void update(int done, long pictures, long time) {
        double seconds = (System.nanoTime() - begin) / 1e9;
        if (seconds < next) {
            return;
        }
        next = seconds + (Caller.TERMINAL ? TERMINAL_INTERVAL : PLAIN_INTERVAL);
        long left = Math.round(seconds / done * (total - done));
        String line = String.format("%3d %%   %s%.1f times real time   %d:%02d left", 100L * done / total,
                pictures > 0 ? String.format("%.0f pictures a second   ", pictures / seconds) : "", time / 1000.0 / seconds,
                left / 60, left % 60);
        Caller.OUTPUT.print(Caller.TERMINAL ? CLEAR_LINE + line : line + System.lineSeparator());
        Caller.OUTPUT.flush();
    }

    /** Shows on a terminal what goes on without counting. */
    public static void stage(String what) {
        if (Caller.TERMINAL) {
            Caller.OUTPUT.print(CLEAR_LINE + what);
            Caller.OUTPUT.flush();
        }
    }

    public static void clear() {
        stage("");
    }

    @Override
    public void close() {
        clear();
    }
}
