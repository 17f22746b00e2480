package com.kelvane.media.tool.live;

import com.kelvane.media.MediaTrack;
import com.kelvane.media.tool.input.AacSource;
import com.kelvane.media.tool.packager.Names;
import com.kelvane.media.tool.packager.SoundLine;
import com.kelvane.media.tool.packager.TrackWriter;
import java.io.Closeable;
import java.util.ArrayDeque;
import java.util.Queue;

/**
 * The sound's segments, each from the first unit on that begins with or behind the first picture of the same segment. Sound may
 * come later than its pictures, which do not wait for it; when it does not come at all, silence takes its place.
 */
final class SoundTrack implements Closeable {
    private static final double PATIENCE = 1500; // ms

    private final Publication publication;
    private final LiveFigures figures;
    private final TrackWriter writer;
    private final SoundLine line;
    private final long origin; // ticks
    private final Queue<LiveSegment> following = new ArrayDeque<>(); // begun, but not by the sound
    private LiveSegment current;
    private int filled;
    private int leftOut;

    /** @param first the segment that it begins with */
    SoundTrack(byte[] configuration, LiveSegment first, Publication publication, LiveFigures figures) {
        this.publication = publication;
        this.figures = figures;
        current = first;
        writer = new TrackWriter(MediaTrack.aac(configuration));
        line = new SoundLine(configuration, writer.timescale(), first.begin);
        origin = ticks(first.begin);
    }

    private long ticks(double milliseconds) {
        return Math.round(milliseconds * writer.timescale() / 1000);
    }

    /** Another segment begins. */
    void begin(LiveSegment segment) {
        following.add(segment);
    }

    /** @param time that pictures have got to, in milliseconds */
    void await(double time) {
        while (!following.isEmpty() && time > following.peek().begin + PATIENCE) {
            LiveSegment next = following.peek();
            fill(next.begin);
            if (following.peek() == next) {
                finishSegment(line.next());
            }
        }
    }

    /** Adds a unit; they come in the order of their times. */
    void add(AacSource.Unit unit) {
        line.add(unit.bytes(), unit.time(), this::write);
    }

    private void fill(double until) {
        line.begin();
        line.fill(until, this::write);
    }

    private void write(byte[] unit, long time) {
        while (!following.isEmpty() && time >= ticks(following.peek().begin)) {
            finishSegment(time);
        }
        if (time + SoundLine.UNIT / 2 > origin) { // players begin both tracks at once
            writer.write(unit, time, true);
        }
    }

    private void finishSegment(long next) {
        publication.addSound(current, writer.cut(next).map(segment -> publication.store(Names.SOUND, current.number,
                publication.initialise(Names.SOUND, writer.initialisation()), segment)).orElse(null));
        current = following.poll();
        figures.sound(line.filled() - filled, line.leftOut() - leftOut, 1.0 * SoundLine.UNIT / writer.timescale());
        filled = line.filled();
        leftOut = line.leftOut();
    }

    /** Completes the last segment; to be called before {@link #close}. */
    void finish(double end) {
        fill(end);
        while (current != null) {
            finishSegment(line.next());
        }
    }

    @Override
    public void close() {
        writer.close();
    }
}
