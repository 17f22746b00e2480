package com.kelvane.media.tool.shell;

/** Says how far a run is: one line rewritten on a terminal, otherwise a plain line every few seconds. */
public final class Progress implements AutoCloseable {
    private static final double TERMINAL_INTERVAL = 0.2;
    private static final double PLAIN_INTERVAL = 5;
    private static final double JSON_INTERVAL = 1;
    private static final String CLEAR_LINE = "\r\033[K";

    private final long begin = System.nanoTime();
    private final long total;
    private double next = JsonLines.isOn() ? JSON_INTERVAL : Caller.TERMINAL ? TERMINAL_INTERVAL : PLAIN_INTERVAL;

    /** @param total milliseconds, or blocks of sound; 0 when that is not known */
    public Progress(long total) {
        this.total = total;
    }

    /**
     * @param done milliseconds, or blocks of sound, that are through
     * @param pictures pictures decoded; 0 says nothing of them
     * @param time presentation time reached, in milliseconds
     */
    public void update(long done, long pictures, long time) {
        double seconds = (System.nanoTime() - begin) / 1e9;
        if (seconds < next) {
            return;
        }
        if (JsonLines.isOn()) {
            next = seconds + JSON_INTERVAL;
            JsonLines.print("progress", json -> {
                json.writeNumberField("done", done);
                json.writeNumberField("of", total);
                json.writeNumberField("pictures", pictures);
                json.writeNumberField("milliseconds", Math.round(1000 * seconds));
            });
            return;
        }
        next = seconds + (Caller.TERMINAL ? TERMINAL_INTERVAL : PLAIN_INTERVAL);
        String line = Text.format("%s%.1f times real time",
                pictures > 0 ? Text.format("%.0f pictures a second   ", pictures / seconds) : "", time / 1000.0 / seconds);
        if (done > 0 && done <= total) {
            long left = Math.round(seconds / done * (total - done));
            line = Text.format("%3d %%   %s   %d:%02d left", 100 * done / total, line, left / 60, left % 60);
        }
        Caller.OUTPUT.print(Caller.TERMINAL ? CLEAR_LINE + line : line + System.lineSeparator());
        Caller.OUTPUT.flush();
    }

    /** Shows on a terminal what goes on without counting. */
    public static void stage(String what) {
        if (JsonLines.isOn()) {
            if (!what.isEmpty()) {
                JsonLines.print("stage", json -> json.writeStringField("stage", what));
            }
        } else if (Caller.TERMINAL) {
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
