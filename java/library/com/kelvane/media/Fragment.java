package com.kelvane.media;

import java.util.List;
import java.util.Objects;

/**
 * A fragment that {@link ContainerWriter#cut} has made: the boxes {@code moof} and {@code mdat}, as a part of a stream of
 * fragments, a CMAF chunk or, with others, a segment. Times are in {@linkplain MediaTrack#timescale ticks} of the track that
 * they belong to. Fragments are equal when their arrays are the same one.
 *
 * @param bytes the boxes; an array of its own
 * @param runs what it holds of each track that has units in it, in the order of the tracks
 */
public record Fragment(byte[] bytes, List<Run> runs) {
    /**
     * The units of one track in a fragment.
     *
     * @param track the track's number
     * @param decodeTime when its first unit is decoded, on the writer's time line; this is what {@code tfdt} says
     * @param presentationTime when the unit that is shown first is shown
     * @param duration from its first unit to the end of its last one
     * @param units how many there are
     * @param isKey whether decoding can begin with the first one
     */
    public record Run(int track, long decodeTime, long presentationTime, long duration, int units, boolean isKey) {
        /** {@return when its last unit ends, which is the {@code decodeTime} of what follows without a hole} */
        public long endTime() {
            return decodeTime + duration;
        }
    }

    /**
     * A fragment of these boxes.
     *
     * @param bytes the boxes; not copied
     * @param runs one at least
     */
    public Fragment {
        Objects.requireNonNull(bytes, "bytes");
        runs = List.copyOf(runs);
        if (runs.isEmpty()) {
            throw new IllegalArgumentException("a fragment has units of one track at least");
        }
    }

    /** {@return the {@link Run#decodeTime} of its first track} */
    public long decodeTime() {
        return runs.get(0).decodeTime;
    }

    /** {@return the {@link Run#duration} of its first track} */
    public long duration() {
        return runs.get(0).duration;
    }

    /** {@return the {@link Run#isKey} of its first track} */
    public boolean isKey() {
        return runs.get(0).isKey;
    }
}
