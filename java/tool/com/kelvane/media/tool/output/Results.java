package com.kelvane.media.tool.output;

import com.kelvane.media.ContainerWriter;
import com.kelvane.media.MediaTrack;
import com.kelvane.media.tool.input.AacSource;
import com.kelvane.media.tool.input.PictureMeaning;
import com.kelvane.media.tool.packager.DecodingTimes;
import com.kelvane.media.tool.packager.LadderWriter;
import com.kelvane.media.tool.packager.SoundLine;
import java.io.Closeable;
import java.io.IOException;
import java.nio.ByteBuffer;
import java.nio.channels.FileChannel;
import java.nio.file.StandardOpenOption;
import java.util.ArrayList;
import java.util.List;

/** Writes the files of all renditions while pictures come, the sound beside them. */
public final class Results implements Closeable {
    private static final int TICKS = MediaTrack.PICTURE_TICKS / 1000; // of a millisecond
    private static final int PICTURES = 0;
    private static final int SOUND = 1;

    /** A file that a container, or nothing but the units, goes into. */
    private final class Output implements Closeable {
        final int rendition;
        final boolean atSourceTimes;
        final boolean hasSound;
        final FileChannel file;
        final ContainerWriter container; // null for bare units
        final DecodingTimes decoding;

        Output(int rendition, String name, boolean hasSound, boolean atSourceTimes, ContainerWriter.Builder builder)
                throws IOException {
            this.rendition = rendition;
            this.hasSound = hasSound;
            this.atSourceTimes = atSourceTimes;
            file = FileChannel.open(workspace.path(name), StandardOpenOption.CREATE, StandardOpenOption.READ,
                    StandardOpenOption.WRITE);
            container = builder == null ? null : builder.open(file);
            decoding = new DecodingTimes(reorderDepth, Math.round(1000 * TICKS / outputs.get(rendition).frameRate()));
            opened.add(this);
        }

        void writePicture(byte[] unit, long time, long sourceTime, boolean key) throws IOException {
            if (container == null) {
                file.write(ByteBuffer.wrap(unit));
                return;
            }
            long shown = TICKS * (atSourceTimes ? Math.max(0, sourceTime) : time);
            long decoded = decoding.next(shown);
            container.write(PICTURES, unit, Math.max(shown, decoded), decoded, 0, key);
        }

        void finish() {
            if (container != null) {
                container.finish();
            }
        }

        @Override
        public void close() throws IOException {
            try (file) {
                if (container != null) {
                    container.close();
                }
            }
        }
    }

    private final List<RenditionOutput> outputs;
    private final Workspace workspace;
    private final int reorderDepth;
    private final List<Output> opened = new ArrayList<>();
    private final LadderWriter ladder; // null where there is none
    private final AacSource sound;
    private final SoundLine line;
    private AacSource.Unit nextSound;

    /**
     * @param products what is made
     * @param meaning how the pictures are to be shown
     * @param reorderDepth pictures that come before others which are shown earlier; 0 when they come in the order of display
     * @param sound null when there is none
     * @param ladder takes the tracks of segments, and is closed with this; null for none
     */
    public Results(List<RenditionOutput> outputs, Products products, PictureMeaning meaning, int reorderDepth, AacSource sound,
                   LadderWriter ladder, Workspace workspace) throws IOException {
        this.outputs = outputs;
        this.workspace = workspace;
        this.reorderDepth = reorderDepth;
        this.sound = sound;
        nextSound = sound == null ? null : sound.next();
        MediaTrack heard = nextSound == null ? null : soundTrack();
        nextSound = heard == null ? null : nextSound;
        line = heard == null ? null : new SoundLine(sound.configuration(), heard.timescale(), 0);
        this.ladder = ladder;
        try {
            for (int i = 0; i < outputs.size(); i++) {
                open(i, products, meaning, heard);
            }
            if (ladder != null && heard != null) {
                ladder.addSound(heard);
            }
        } catch (IOException | RuntimeException failed) {
            close();
            throw failed;
        }
    }

    private void open(int rendition, Products products, PictureMeaning meaning, MediaTrack heard) throws IOException {
        RenditionOutput output = outputs.get(rendition);
        MediaTrack pictures = meaning.track(output.width(), output.height());
        if (products.writesMp4()) {
            ContainerWriter.Builder mp4 = ContainerWriter.builder(ContainerWriter.Format.MP4).track(pictures).fastStart();
            boolean hasSound = heard != null;
            new Output(rendition, output.containerName(), hasSound, false,
                    hasSound ? mp4.track(heard.priming(Math.max(0, (int) -ticks(nextSound.time(), heard)))) : mp4);
        }
        if (products.raw()) {
            new Output(rendition, output.streamName(), false, false,
                    meaning.isTold() ? ContainerWriter.builder(ContainerWriter.Format.H264).track(pictures) : null);
        }
        if (output.processed()) {
            new Output(rendition, output.sourceTimedName(), false, true,
                    ContainerWriter.builder(ContainerWriter.Format.MATROSKA).track(pictures));
        }
        if (ladder != null) {
            ladder.addRendition(output.size(), pictures);
        }
    }

    /** Null for AAC of a kind that containers cannot be told of. */
    private MediaTrack soundTrack() {
        try {
            return MediaTrack.aac(sound.configuration());
        } catch (IllegalArgumentException unusual) {
            Summary.line("sound: left out, for %s", unusual.getMessage());
            return null;
        }
    }

    private static long ticks(double milliseconds, MediaTrack track) {
        return Math.round(milliseconds * track.timescale() / 1000);
    }

    /**
     * Adds a picture.
     *
     * @param rendition its position
     * @param time when it is shown, in milliseconds
     * @param sourceTime when the same picture of the source is shown; not another time unless a module moved it
     * @param key whether it is an IDR picture
     */
    public void write(int rendition, byte[] accessUnit, long time, long sourceTime, boolean key) throws IOException {
        for (Output output : opened) {
            if (output.rendition == rendition) {
                output.writePicture(accessUnit, time, sourceTime, key);
            }
        }
        if (ladder != null) {
            ladder.writePicture(rendition, accessUnit, time, key);
        }
        writeSound(time);
    }

    private void writeSound(double until) throws IOException {
        for (; nextSound != null && nextSound.time() <= until; nextSound = sound.next()) {
            line.add(nextSound.bytes(), nextSound.time(), this::takeSound);
        }
    }

    private void takeSound(byte[] unit, long time) throws IOException {
        for (Output output : opened) {
            if (output.hasSound) {
                output.container.write(SOUND, unit, time);
            }
        }
        if (ladder != null) {
            ladder.writeSound(unit, time);
        }
    }

    /**
     * Writes what is left of the sound, and the ends of all files.
     *
     * @param end when the last picture is over, in milliseconds
     */
    public void finish(double end) throws IOException {
        if (ladder != null) {
            ladder.endPictures(end);
        }
        writeSound(Double.POSITIVE_INFINITY);
        if (line != null) {
            line.fill(end, this::takeSound);
        }
        if (ladder != null && line != null) {
            ladder.endSound(line.next());
        }
        for (Output output : opened) {
            output.finish();
        }
    }

    @Override
    public void close() throws IOException {
        for (Output output : opened) {
            output.close();
        }
        if (ladder != null) {
            ladder.close();
        }
    }
}
