package com.kelvane.media.tool.live;

import java.time.Instant;
import java.util.Arrays;
import java.util.BitSet;
import java.util.Objects;

/** A segment of the ladder, with what each rendition has of it. */
final class Segment {
    /**
     * A rendition's part.
     *
     * @param name in the directory, as that of what players are to know first
     * @param size in bytes
     */
    record Piece(String name, String initialisation, double seconds, long size) {
    }

    final int number;
    final Instant date;
    final long arrival;
    final boolean begins;
    final Piece[] pieces;
    final BitSet awaited = new BitSet();

    Segment(int number, long arrival, boolean begins, int renditions) {
        this.number = number;
        this.arrival = arrival;
        this.begins = begins;
        date = Instant.now().minusNanos(Math.max(0, System.nanoTime() - arrival));
        pieces = new Piece[renditions];
    }

    /** What stands in the list of a rendition: its own, the next smaller one's or the next larger one's. */
    Piece listed(int rendition) {
        for (int i = rendition; i < pieces.length; i++) {
            if (pieces[i] != null) {
                return pieces[i];
            }
        }
        return Arrays.stream(pieces, 0, rendition).filter(Objects::nonNull).reduce((first, last) -> last).orElse(null);
    }
}
