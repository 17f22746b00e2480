package com.kelvane.media.tool.live;

import com.kelvane.media.tool.input.AacSource;
import com.kelvane.media.tool.input.LiveSound;
import com.kelvane.media.tool.input.PictureMeaning;
import com.kelvane.media.tool.output.MatroskaWriter;
import com.kelvane.media.tool.output.RenditionOutput;
import com.kelvane.media.tool.shell.MediaProgram;
import java.io.FilterOutputStream;
import java.io.IOException;
import java.io.OutputStream;
import java.nio.file.Path;
import java.util.ArrayDeque;
import java.util.ArrayList;
import java.util.List;
import java.util.Queue;

/**
 * One rendition's segments, with the sound, for as long as it is made without a break: an FFmpeg of its own makes fragments,
 * one for each key picture, and this puts them together. Written by one thread; segments come out from another.
 */
final class RenditionStream {
    /** A segment of which all pictures were written, in so many fragments. */
    private record Written(int number, int fragments, double seconds) {
    }

    private static final String MAXIMAL_WAIT = "500000"; // microseconds that pictures wait for the sound

    private final MediaProgram.Running program;
    private final MediaProgram.FirstError error = new MediaProgram.FirstError("");
    private final MatroskaWriter writer;
    private final SegmentReceiver receiver;
    private final boolean hasSound;
    private final Thread reader;
    private final Queue<Written> written = new ArrayDeque<>();
    private int number;
    private int keys;
    private long begin = Long.MIN_VALUE;
    private int following = -1; // number of the segment that begins with the next key picture; -1 when none is to
    private volatile boolean broken;
    private volatile boolean closed;

    /**
     * Starts with a segment; the program ends with the thread that calls this.
     *
     * @param sound null when there is none
     */
    RenditionStream(RenditionOutput output, PictureMeaning meaning, LiveSound sound, int number, SegmentReceiver receiver)
            throws IOException {
        this.number = number;
        this.receiver = receiver;
        hasSound = sound != null;
        List<String> command = new ArrayList<>(List.of("-v", "error", "-probesize", "32", "-analyzeduration", "0", "-copyts", "-f",
                "matroska", "-i", "pipe:0", "-map", "0", "-c", "copy"));
        meaning.streamFilter(output.width(), output.height()).ifPresent(filter -> command.addAll(List.of("-bsf:v", filter)));
        command.addAll(meaning.containerOptions());
        // Times stay as they are; a fragment is written as soon as the next key picture has come.
        command.addAll(List.of("-avoid_negative_ts", "disabled", "-max_interleave_delta", MAXIMAL_WAIT, "-movflags",
                "+empty_moov+frag_keyframe+default_base_moof+frag_discont+skip_trailer", "-flush_packets", "1", "-f", "mp4",
                "pipe:1"));
        program = MediaProgram.FFMPEG.start(Path.of("").toAbsolutePath(), command, true, error);
        writer = new MatroskaWriter(new Flushing(program.input()));
        // Each key picture has its parameter sets with it, for players that miss the change to another rendition's segments.
        writer.addVideo(output.width(), output.height(), output.frameRate(), true, true);
        if (hasSound) {
            writer.addSound(sound.configuration(), sound.sampleRate(), sound.channels(), 0);
        }
        reader = new Thread(this::read, output.size());
        reader.setDaemon(true);
        reader.start();
    }

    /** Hands on each piece at once. */
    private static final class Flushing extends FilterOutputStream {
        Flushing(OutputStream stream) {
            super(stream);
        }

        @Override
        public void write(byte[] bytes, int from, int length) throws IOException {
            out.write(bytes, from, length);
            out.flush();
        }
    }

    /** Has a segment begin with the next key picture. */
    void cut(int next) {
        if (following >= 0) { // the encoder has left out the picture that it was to begin with
            receiver.failed(following);
        }
        following = next;
    }

    /** @param time in milliseconds */
    void writePicture(byte[] accessUnit, long time, boolean key) {
        if (begin == Long.MIN_VALUE && !key || broken) {
            return;
        }
        if (begin == Long.MIN_VALUE) {
            begin = time;
        } else if (key && following >= 0) {
            finishSegment(time);
            number = following;
            following = -1;
            keys = 0;
            begin = time;
        }
        keys += key ? 1 : 0;
        try {
            writer.writePicture(1, accessUnit, time);
        } catch (IOException ended) { // the reader tells
            broken = true;
        }
    }

    void writeSound(AacSource.Unit unit) {
        if (!hasSound || broken || begin == Long.MIN_VALUE || unit.time() < begin && keys <= 1) {
            return;
        }
        try {
            writer.writeSound(2, unit.bytes(), Math.round(unit.time()));
        } catch (IOException ended) {
            broken = true;
        }
    }

    private void finishSegment(long end) {
        synchronized (written) {
            written.add(new Written(number, keys, (end - begin) / 1000.0));
        }
    }

    /** Whether there are no segments any more, so that another stream has to take over. */
    boolean isBroken() {
        return broken;
    }

    /** Whether all segments have come out. */
    boolean isOver() {
        return !reader.isAlive();
    }

    /** Ends the last segment; those that are still to come out will. */
    void finish(long end) {
        if (begin != Long.MIN_VALUE && end > begin && !broken) {
            finishSegment(end);
        } else {
            receiver.failed(number);
        }
        if (following >= 0) {
            receiver.failed(following);
        }
        closed = true;
        try {
            writer.close();
        } catch (IOException ended) {
            broken = true;
        }
        if (broken) {
            failLost();
        }
    }

    private void failLost() {
        synchronized (written) {
            written.forEach(lost -> receiver.failed(lost.number));
            written.clear();
        }
    }

    /** Waits until all segments have come out. */
    void join() {
        try {
            reader.join();
        } catch (InterruptedException interrupted) {
            Thread.currentThread().interrupt();
        }
    }

    private void read() {
        String problem = null;
        try {
            Fragments fragments = new Fragments(program.output());
            receiver.initialised(fragments.initialisation());
            for (boolean goesOn = true; goesOn;) {
                goesOn = readSegment(fragments);
            }
            if (program.finish() != 0 || !closed) {
                problem = error.toString();
            }
        } catch (IOException unusable) {
            problem = String.valueOf(unusable.getMessage());
        } finally {
            broken = true;
            program.close();
            failLost();
            receiver.ended(problem);
        }
    }

    /** Returns false at the end. */
    private boolean readSegment(Fragments fragments) throws IOException {
        Written complete = null;
        try (OutputStream segment = receiver.begin()) {
            for (int count = 1; complete == null; count++) {
                if (!fragments.copyNext(segment)) {
                    return false;
                }
                complete = first(count);
            }
        }
        receiver.finished(complete.number, complete.seconds);
        return true;
    }

    /** The segment that is complete with so many fragments. */
    private Written first(int fragments) {
        synchronized (written) {
            return !written.isEmpty() && written.peek().fragments <= fragments ? written.poll() : null;
        }
    }
}
