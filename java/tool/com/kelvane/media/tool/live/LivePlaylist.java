package com.kelvane.media.tool.live;

import com.kelvane.media.tool.shell.Text;
import java.time.Instant;
import java.time.temporal.ChronoUnit;
import java.util.ArrayList;
import java.util.List;

/** The text of one rendition's playlist. */
final class LivePlaylist {
    /** What becomes of the list. */
    enum Kind {
        /** The first segments go as others come. */
        SLIDING(""),
        /** Segments are added. */
        GROWING("EVENT"),
        /** Complete. */
        FINISHED("VOD");

        private final String type;

        Kind(String type) {
            this.type = type;
        }
    }

    /**
     * One segment.
     *
     * @param name relative to the playlist
     * @param initialisation what players are to know first, the same
     * @param date when its first picture came
     * @param begins whether something else than times changes here, in any rendition
     */
    record Entry(String name, String initialisation, double seconds, Instant date, boolean begins) {
    }

    private LivePlaylist() {
    }

    /**
     * @param gone number of segments, and of {@link Entry#begins}, that are no longer listed
     */
    static String text(Kind kind, int targetSeconds, int gone, int goneBegins, List<Entry> entries) {
        List<String> lines = new ArrayList<>(List.of("#EXTM3U", "#EXT-X-VERSION:7", "#EXT-X-TARGETDURATION:" + targetSeconds,
                "#EXT-X-MEDIA-SEQUENCE:" + gone));
        if (goneBegins > 0) {
            lines.add("#EXT-X-DISCONTINUITY-SEQUENCE:" + goneBegins);
        }
        lines.add("#EXT-X-INDEPENDENT-SEGMENTS");
        if (!kind.type.isEmpty()) {
            lines.add("#EXT-X-PLAYLIST-TYPE:" + kind.type);
        }
        String initialisation = "";
        for (Entry entry : entries) {
            if (entry.begins) {
                lines.add("#EXT-X-DISCONTINUITY");
            }
            if (!entry.initialisation.equals(initialisation)) {
                initialisation = entry.initialisation;
                lines.add("#EXT-X-MAP:URI=\"" + initialisation + "\"");
            }
            lines.add("#EXT-X-PROGRAM-DATE-TIME:" + entry.date.truncatedTo(ChronoUnit.MILLIS));
            lines.add(Text.format("#EXTINF:%.3f,", entry.seconds));
            lines.add(entry.name);
        }
        if (kind == Kind.FINISHED) {
            lines.add("#EXT-X-ENDLIST");
        }
        return String.join("\n", lines) + "\n";
    }
}
