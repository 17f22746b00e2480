package com.kelvane.media;

/**
 * Memory that closed engines leave with the C library, which keeps gigabytes for itself after a peak. Any thread may call it.
 */
final class FreedMemory {
    // Engines. What fewer leave is not worth the time; the time that it takes grows with what is given back.
    private static final int FEWEST = 16;
    // Of the engines that were alive. Where streams come and go at about the same number, that many seldom end at once.
    private static final int PART = 8;

    private int alive;
    private int most; // alive at a time since memory was last given back

    /** An engine was made. */
    synchronized void opened() {
        most = Math.max(most, ++alive);
    }

    /**
     * {@return whether to give memory back, now that an engine was freed} That is each time when an eighth of the engines is
     * gone on the way down from a peak.
     */
    synchronized boolean closed() {
        alive--;
        if (most - alive < Math.max(FEWEST, most / PART)) {
            return false;
        }
        most = alive;
        return true;
    }

    /**
     * Gives memory back that nobody uses; it takes milliseconds, in which other threads may have to wait for memory.
     *
     * @return whether there was any
     */
    static native boolean giveBack();
}
