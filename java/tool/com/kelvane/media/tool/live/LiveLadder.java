package com.kelvane.media.tool.live;

import com.kelvane.media.MediaTrack;
import com.kelvane.media.tool.input.AacSource;
import com.kelvane.media.tool.input.LiveSound;
import com.kelvane.media.tool.input.PictureMeaning;
import com.kelvane.media.tool.output.RenditionOutput;
import com.kelvane.media.tool.packager.PictureRate;
import com.kelvane.media.tool.packager.TrackWriter;
import java.io.Closeable;
import java.io.IOException;
import java.time.Duration;
import java.time.Instant;
import java.util.Arrays;
import java.util.List;

/** Makes segments of pictures and sound: those of a rendition for as long as it is made, those of the sound once for all. */
final class LiveLadder implements Closeable {
    private static final Duration LATEST = Duration.ofSeconds(5); // by which dates may stay behind the clock

    /** A rendition's segments. */
    private static final class Pictures {
        final String folder;
        final TrackWriter writer;
        final PictureRate rate = new PictureRate();
        boolean begun; // whether the segment under way has its first picture

        Pictures(RenditionOutput output, MediaTrack track) {
            folder = output.size();
            writer = new TrackWriter(track);
        }

        long ticks(double milliseconds) {
            return Math.round(milliseconds * writer.timescale() / 1000);
        }
    }

    private final List<RenditionOutput> outputs;
    private final Publication publication;
    private final LiveFigures figures;
    private List<Pictures> renditions; // null until there is a source
    private byte[] configuration;      // the sound's AudioSpecificConfig; null without sound
    private SoundTrack sound;
    private boolean soundChanged;
    private LiveSegment segment; // under way
    private Instant zero;        // the date of time 0
    private int next;

    LiveLadder(List<RenditionOutput> outputs, Publication publication, LiveFigures figures) {
        this.outputs = outputs;
        this.publication = publication;
        this.figures = figures;
    }

    /**
     * What the source is from now on; only the first one decides how pictures are shown, and whether there is sound.
     *
     * @return whether the sound's kind changes, with the next segment
     */
    boolean source(PictureMeaning meaning, LiveSound heard) throws IOException {
        if (renditions == null) {
            renditions = outputs.stream().map(output -> new Pictures(output, meaning.track(output.width(), output.height())))
                    .toList();
            configuration = heard == null ? null : heard.configuration();
            publication.source(meaning, heard);
        } else if (hasSound() && heard != null && !Arrays.equals(configuration, heard.configuration())) {
            configuration = heard.configuration();
            soundChanged = true;
            publication.source(meaning, heard);
        }
        return soundChanged;
    }

    boolean hasSound() {
        return configuration != null;
    }

    /**
     * Begins a segment with the next picture.
     *
     * @param time of the picture in milliseconds
     * @param arrival when it came
     */
    void cut(long time, long arrival) {
        finishPictures(time);
        Instant came = Instant.now().minusNanos(Math.max(0, System.nanoTime() - arrival)).minusMillis(time);
        boolean late = zero != null && came.isAfter(zero.plus(LATEST)); // the source had stopped
        zero = zero == null || late ? came : zero;
        segment = new LiveSegment(next++, time, arrival, zero, late || soundChanged, outputs.size());
        if (sound != null && soundChanged) {
            sound.finish(time);
            sound.close();
            sound = null;
        }
        soundChanged = false;
        if (sound != null) {
            sound.begin(segment);
        } else if (hasSound()) {
            sound = new SoundTrack(configuration, segment, publication, figures);
        }
    }

    private void finishPictures(double end) {
        if (segment == null) {
            return;
        }
        for (int i = 0; i < renditions.size(); i++) {
            Pictures pictures = renditions.get(i);
            pictures.begun = false;
            segment.pieces[i] = pictures.writer.cut(pictures.ticks(end)).map(made -> publication.store(pictures.folder,
                    segment.number, publication.initialise(pictures.folder, pictures.writer.initialisation()), made)).orElse(null);
            if (segment.pieces[i] != null) {
                publication.rendition(i, pictures.writer.codecs(), pictures.rate.fastest());
            }
        }
        publication.add(segment);
    }

    /** Adds a picture of the segment under way; one that does not begin with a key picture is left out. */
    void writePicture(int rendition, byte[] accessUnit, long time, boolean key) {
        Pictures pictures = renditions.get(rendition);
        pictures.begun |= key && segment != null && time == segment.begin;
        if (pictures.begun) {
            pictures.writer.write(accessUnit, pictures.ticks(time), key);
            pictures.rate.add(time);
        }
    }

    void writeSound(AacSource.Unit unit) {
        if (sound != null) {
            sound.add(unit);
        }
    }

    /** Has silence take the place of sound that has not come long after its pictures. */
    void awaitSound(double time) {
        if (sound != null) {
            sound.await(time);
        }
    }

    /** Ends the last segment and makes the lists complete. Returns whether there is anything to play. */
    boolean finish(long end) throws IOException {
        finishPictures(end);
        if (sound != null) {
            sound.finish(end);
        }
        return publication.finish();
    }

    @Override
    public void close() {
        if (renditions != null) {
            renditions.forEach(pictures -> pictures.writer.close());
        }
        if (sound != null) {
            sound.close();
        }
    }
}
