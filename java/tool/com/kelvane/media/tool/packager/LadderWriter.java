package com.kelvane.media.tool.packager;

import com.kelvane.media.MediaTrack;
import com.kelvane.media.tool.shell.Failure;
import java.io.Closeable;
import java.io.IOException;
import java.util.ArrayDeque;
import java.util.ArrayList;
import java.util.List;
import java.util.Queue;
import java.util.function.IntFunction;

/**
 * Makes the segments of a ladder from a file: of some renditions, of the sound, or of both. Renditions are cut at key pictures,
 * the sound where the first of them is. The lists are the caller's to write, when all tracks are known.
 */
public final class LadderWriter implements Closeable {
    private static final double LONGEST_OVERHANG = 400; // ms of sound behind the pictures that make no segment

    /** Takes finished files. */
    public interface Store {
        void put(String name, byte[] contents) throws IOException;
    }

    /**
     * A track that is complete.
     *
     * @param initialisation what players are to know first
     * @param codecs as RFC 6381 calls it
     * @param fastest pictures a second, as {@link PictureRate} measures it
     */
    public record Track(String folder, byte[] initialisation, String codecs, double fastest, MediaPlaylist segments) {
    }

    /** A track's segments so far. */
    private final class Segments {
        final String folder;
        final TrackWriter writer;
        final PictureRate rate = new PictureRate();
        final List<MediaPlaylist.Entry> entries = new ArrayList<>();
        double due = Double.NaN; // when the next segment may begin, in milliseconds

        Segments(String folder, MediaTrack track) {
            this.folder = folder;
            writer = new TrackWriter(track);
        }

        long ticks(double milliseconds) {
            return Math.round(milliseconds * writer.timescale() / 1000);
        }

        void cut(long next) throws IOException {
            Segment segment = writer.cut(next).orElse(null);
            if (segment != null) {
                String name = names.apply(entries.size());
                store.put(folder + "/" + name, segment.bytes());
                entries.add(new MediaPlaylist.Entry(name, segment.begin(), segment.seconds(), segment.bytes().length));
            }
        }

        Track finished() {
            if (entries.isEmpty()) {
                throw new Failure("there is nothing to play in %s; --no-hls leaves the ladder out", folder);
            }
            return new Track(folder, writer.initialisation(), writer.codecs(), rate.fastest(), new MediaPlaylist(entries));
        }
    }

    private final double step; // ms
    private final double origin;
    private final IntFunction<String> names;
    private final Store store;
    private final List<Segments> renditions = new ArrayList<>();
    private final Queue<Double> soundCuts = new ArrayDeque<>();
    private Segments sound;
    private double lastSoundCut;
    private double end = Double.POSITIVE_INFINITY;

    /**
     * @param origin when the ladder begins, in milliseconds: pictures that come later begin then all the same, with the first
     *     one; NaN for a part that begins with its first picture
     * @param names of segments, by number
     */
    public LadderWriter(int segmentSeconds, double origin, IntFunction<String> names, Store store) {
        step = 1000.0 * segmentSeconds;
        this.origin = origin;
        this.names = names;
        this.store = store;
    }

    /** Adds a rendition; they are numbered from 0. */
    public void addRendition(String folder, MediaTrack track) {
        renditions.add(new Segments(folder, track));
    }

    public void addSound(MediaTrack track) {
        sound = new Segments(Names.SOUND, track);
    }

    /** @param time in milliseconds */
    public void writePicture(int rendition, byte[] unit, long time, boolean key) throws IOException {
        Segments track = renditions.get(rendition);
        boolean first = Double.isNaN(track.due);
        if (first) {
            track.due = Double.isNaN(origin) ? time + step : origin + step;
            // Players put the beginnings of all tracks on the same moment: until the pictures begin, the first one is shown.
            for (; !Double.isNaN(origin) && time >= track.due; track.due += step) {
                track.writer.write(unit, track.ticks(track.due - step), key);
                cut(track, track.due);
            }
        } else if (key && time >= track.due) {
            cut(track, time);
            track.due += (Math.floor((time - track.due) / step) + 1) * step;
        }
        track.rate.add(time);
        track.writer.write(unit, track.ticks(first && !Double.isNaN(origin) ? track.due - step : time), key);
    }

    private void cut(Segments track, double time) throws IOException {
        track.cut(track.ticks(time));
        if (track == renditions.get(0)) {
            cutSoundAt(time);
        }
    }

    /** Has the sound's next segment begin at a time, in milliseconds, or with the first unit behind it. */
    public void cutSoundAt(double time) {
        soundCuts.add(time);
    }

    /** @param time in ticks of the sound */
    public void writeSound(byte[] unit, long time) throws IOException {
        while (!soundCuts.isEmpty() && time >= sound.ticks(soundCuts.peek())) {
            lastSoundCut = soundCuts.poll();
            sound.cut(time);
        }
        double beyond = Math.max(lastSoundCut + step, end + LONGEST_OVERHANG);
        if (time >= sound.ticks(beyond)) {
            lastSoundCut = beyond;
            sound.cut(time);
        }
        sound.writer.write(unit, time, true);
    }

    /** Ends the renditions at a time, in milliseconds, where the last picture is over; sound may follow. */
    public void endPictures(double time) throws IOException {
        end = time;
        for (Segments track : renditions) {
            track.cut(track.ticks(time));
        }
    }

    /**
     * Ends the sound.
     *
     * @param next when the next unit would come, in ticks
     */
    public void endSound(long next) throws IOException {
        sound.cut(next);
    }

    /** {@return the renditions; each has a picture at least} */
    public List<Track> renditions() {
        return renditions.stream().map(Segments::finished).toList();
    }

    /** {@return the sound, or null} */
    public Track sound() {
        return sound == null || sound.entries.isEmpty() ? null : sound.finished();
    }

    @Override
    public void close() {
        renditions.forEach(track -> track.writer.close());
        if (sound != null) {
            sound.writer.close();
        }
    }
}
