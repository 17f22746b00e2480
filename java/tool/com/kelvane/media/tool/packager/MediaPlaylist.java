package com.kelvane.media.tool.packager;

import com.kelvane.media.tool.shell.Text;
import java.time.Instant;
import java.time.temporal.ChronoUnit;
import java.util.ArrayList;
import java.util.List;

/**
 * The segments of one track, and the list that players read.
 *
 * @param entries in their order
 */
public record MediaPlaylist(List<Entry> entries) {
    /** What becomes of the list. */
    public enum Kind {
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
     * @param begin its first time in seconds, on the time line of all tracks
     * @param date of that time; null where the playlist needs none
     * @param begins whether something else than times changes here, in any rendition
     */
    public record Entry(String name, String initialisation, double begin, double seconds, long bytes, Instant date,
                        boolean begins) {
        /** One of a ladder that is made from a file. */
        public Entry(String name, double begin, double seconds, long bytes) {
            this(name, Names.INITIALISATION, begin, seconds, bytes, null, false);
        }

        private Entry dated() {
            return new Entry(name, initialisation, begin, seconds, bytes, Instant.EPOCH.plusNanos(Math.round(1e9 * begin)), begins);
        }
    }

    /** {@return the same with dates, which tell players apart that count on from a track's own beginning} */
    public MediaPlaylist dated() {
        return new MediaPlaylist(entries.stream().map(Entry::dated).toList());
    }

    /** {@return the longest segment, rounded as HLS has it} */
    public int targetSeconds() {
        return (int) Math.max(1, entries.stream().mapToLong(entry -> Math.round(entry.seconds)).max().orElse(1));
    }

    /** {@return the list of a track that is complete} */
    public String text() {
        return text(Kind.FINISHED, targetSeconds(), 0, 0);
    }

    /**
     * The list.
     *
     * @param gone number of segments, and of {@link Entry#begins}, that are no longer listed
     */
    public String text(Kind kind, int targetSeconds, int gone, int goneBegins) {
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
            if (entry.date != null) {
                lines.add("#EXT-X-PROGRAM-DATE-TIME:" + entry.date.truncatedTo(ChronoUnit.MILLIS));
            }
            lines.add(Text.format("#EXTINF:%.6f,", entry.seconds));
            lines.add(entry.name);
        }
        if (kind == Kind.FINISHED) {
            lines.add("#EXT-X-ENDLIST");
        }
        return String.join("\n", lines) + "\n";
    }

    /** {@return seconds of all segments} */
    public double seconds() {
        return entries.stream().mapToDouble(Entry::seconds).sum();
    }

    /** {@return bits per second of all segments} */
    public long averageBandwidth() {
        return bandwidth(entries.stream().mapToLong(Entry::bytes).sum(), seconds());
    }

    /** {@return the largest bit rate that a player may have to load: {@link #peakBandwidth(int)}} */
    public long peakBandwidth() {
        return peakBandwidth(targetSeconds());
    }

    /**
     * The largest bit rate of any segments in a row that take half to one and a half of the target duration, which is what
     * a player may have to load in that time; the average where none do.
     */
    public long peakBandwidth(int targetSeconds) {
        long peak = averageBandwidth();
        for (int begin = 0; begin < entries.size(); begin++) {
            long bytes = 0;
            double taken = 0;
            for (int i = begin; i < entries.size() && taken + entries.get(i).seconds <= 1.5 * targetSeconds; i++) {
                bytes += entries.get(i).bytes;
                taken += entries.get(i).seconds;
                if (taken >= 0.5 * targetSeconds) {
                    peak = Math.max(peak, bandwidth(bytes, taken));
                }
            }
        }
        return peak;
    }

    /** {@return whether the segments begin at the same times as those of another track, to the millisecond} */
    public boolean isCutLike(MediaPlaylist other) {
        for (int i = 0; i < Math.min(entries.size(), other.entries.size()); i++) {
            if (Math.abs(entries.get(i).begin - other.entries.get(i).begin) > 0.001) {
                return false;
            }
        }
        return entries.size() == other.entries.size();
    }

    private static long bandwidth(long bytes, double seconds) {
        return (long) Math.ceil(8 * bytes / Math.max(seconds, 0.001));
    }
}
