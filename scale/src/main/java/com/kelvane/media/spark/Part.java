package com.kelvane.media.spark;

import java.io.Serializable;
import java.util.ArrayList;
import java.util.Base64;
import java.util.List;

/**
 * What became of a part of an input: a chunk of its pictures in all renditions, or its sound. Small, however long the part
 * is: the segments lie in the output.
 *
 * @param number of the chunk from 0, or {@link #SOUND}
 * @param begin time of the first picture in milliseconds, in the result; for the sound 0
 * @param pictures that were decoded and belong to the part
 * @param lost access units that gave no picture
 * @param damage what is wrong with the input, but leaves something to keep; or null
 * @param lacking what renditions lack because an encoder failed; or null
 * @param problem why there is no result; null when there is one
 * @param tracks of each rendition or of the sound; empty where no key frame of the input begins a chunk
 * @param inputBytes that were read over Hadoop's streams; 0 where FFmpeg opened the file itself
 * @param milliseconds that the part took
 */
record Part(int number, long begin, int pictures, int lost, String damage, String lacking, String problem,
            ArrayList<Track> tracks, long inputBytes, long milliseconds) implements Serializable {
    static final int SOUND = -1;
    private static final long serialVersionUID = 1;

    /**
     * The segments of one rendition, or of the sound.
     *
     * @param folder they lie in
     * @param initialisation segment, the same in all chunks
     * @param codecs as RFC 6381 calls it
     * @param channels of the sound; 0 for pictures
     * @param fastest pictures a second, as they were measured
     */
    record Track(String folder, byte[] initialisation, String codecs, int channels, double fastest,
                 ArrayList<Segment> segments) implements Serializable {
        private static final long serialVersionUID = 1;
    }

    /** One file; its first time in seconds, and how many its units take. */
    record Segment(String name, double begin, double seconds, long bytes) implements Serializable {
        private static final long serialVersionUID = 1;
    }

    static Part failed(int number, String problem) {
        return new Part(number, 0, 0, 0, null, null, problem, new ArrayList<>(), 0, 0);
    }

    /** How the part is remembered beside its segments. */
    List<String> lines() {
        List<String> lines = new ArrayList<>();
        lines.add(String.join(" ", "part", text(number), text(begin), text(pictures), text(lost), text(inputBytes),
                text(milliseconds)));
        if (damage != null) {
            lines.add("damage " + damage.replaceAll("\\R", " "));
        }
        if (lacking != null) {
            lines.add("lacking " + lacking);
        }
        for (Track track : tracks) {
            lines.add(String.join(" ", "track", track.folder, encoded(track.initialisation), track.codecs,
                    text(track.channels), Double.toString(track.fastest)));
            for (Segment segment : track.segments) {
                lines.add(String.join(" ", "segment", segment.name, Double.toString(segment.begin),
                        Double.toString(segment.seconds), text(segment.bytes)));
            }
        }
        lines.add("end");
        return lines;
    }

    /** Reads what {@link #lines} wrote; null when that is not whole. */
    static Part read(List<String> lines) {
        if (lines.isEmpty() || !lines.get(lines.size() - 1).equals("end")) {
            return null;
        }
        String[] head = lines.get(0).split(" ");
        String damage = null;
        String lacking = null;
        ArrayList<Track> tracks = new ArrayList<>();
        for (String line : lines) {
            String[] words = line.split(" ");
            switch (words[0]) {
                case "damage" -> damage = line.substring(words[0].length() + 1);
                case "lacking" -> lacking = line.substring(words[0].length() + 1);
                case "track" -> tracks.add(new Track(words[1], decoded(words[2]), words[3], Integer.parseInt(words[4]),
                        Double.parseDouble(words[5]), new ArrayList<>()));
                case "segment" -> tracks.get(tracks.size() - 1).segments.add(new Segment(words[1],
                        Double.parseDouble(words[2]), Double.parseDouble(words[3]), Long.parseLong(words[4])));
                default -> { }
            }
        }
        return new Part(Integer.parseInt(head[1]), Long.parseLong(head[2]), Integer.parseInt(head[3]),
                Integer.parseInt(head[4]), damage, lacking, null, tracks, Long.parseLong(head[5]), Long.parseLong(head[6]));
    }

    private static String text(long value) {
        return Long.toString(value);
    }

    private static String encoded(byte[] bytes) {
        return Base64.getEncoder().encodeToString(bytes);
    }

    private static byte[] decoded(String text) {
        return Base64.getDecoder().decode(text);
    }
}
