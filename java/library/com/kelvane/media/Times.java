package com.kelvane.media;

/** Times of 64 bits from those of 32 that the native engines carry. */
final class Times {
    private Times() {
    }

    /** The time with these low 32 bits that is nearest to another time: 24 days of reordering are enough. */
    static long nearest(long lowBits, long other) {
        return other + (int) (lowBits - other);
    }
}
