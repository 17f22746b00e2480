package com.kelvane.media.tool.live;

import com.kelvane.media.tool.packager.MediaPlaylist.Entry;
import java.time.Instant;
import java.util.Arrays;
import java.util.Objects;

/** A segment of the ladder, with what each rendition has of it, and the sound. */
final class LiveSegment {
    /**
     * A track's part.
     *
     * @param folder of the track
     * @param name in that folder, as that of what players are to know first
     * @param begin seconds, on the ladder's time line
     */
    record Piece(String folder, String name, String initialisation, double begin, double seconds, long bytes) {
        String path() {
            return folder + "/" + name;
        }
    }

    final int number;
    final double begin; // milliseconds
    final long arrival;
    final Piece[] pieces;
    Piece sound;    // null until it is complete, and without sound
    boolean begins; // whether something else than times changes with it
    private final Instant zero;

    /**
     * @param arrival when its first picture came
     * @param zero the date of the ladder's time 0
     */
    LiveSegment(int number, double begin, long arrival, Instant zero, boolean begins, int renditions) {
        this.number = number;
        this.begin = begin;
        this.arrival = arrival;
        this.zero = zero;
        this.begins = begins;
        pieces = new Piece[renditions];
    }

    /** What stands in the list of a rendition: its own, the next smaller one's or the next larger one's; null without any. */
    Piece listed(int rendition) {
        for (int i = rendition; i < pieces.length; i++) {
            if (pieces[i] != null) {
                return pieces[i];
            }
        }
        return Arrays.stream(pieces, 0, rendition).filter(Objects::nonNull).reduce((first, last) -> last).orElse(null);
    }

    /** The folders of what is listed. */
    String[] folders() {
        String[] folders = new String[pieces.length];
        Arrays.setAll(folders, i -> listed(i).folder);
        return folders;
    }

    /** What a list in a folder says of one of the pieces. */
    Entry entry(Piece piece, String folder) {
        String way = piece.folder.equals(folder) ? "" : "../" + piece.folder + "/";
        return new Entry(way + piece.name, way + piece.initialisation, piece.begin, piece.seconds, piece.bytes,
                zero.plusNanos(Math.round(1e9 * piece.begin)), begins);
    }
}
