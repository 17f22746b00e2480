package com.kelvane.media.tool.input;

/**
 * The times of a result, from those of its source; all in milliseconds.
 *
 * @param origin the source's own time at the result's beginning
 * @param length after which the result ends
 * @param displayOrder for a stream without timestamps: where each access unit's picture comes in the order of display
 */
public record Timeline(double origin, double length, int[] displayOrder) {
    /**
     * The time in the result.
     *
     * @param time the source's own
     */
    public double at(double time) {
        return time - origin;
    }

    /** Whether a picture of this time in the result is to be shown. */
    public boolean shows(long time) {
        return time >= 0 && time < Math.round(length);
    }
}
