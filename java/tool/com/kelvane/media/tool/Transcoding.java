package com.kelvane.media.tool;

import com.kelvane.media.AccessUnit;
import com.kelvane.media.EncodedPicture;
import com.kelvane.media.PicturePlan;
import com.kelvane.media.Rendition;
import com.kelvane.media.Transcoder;
import com.kelvane.media.tool.input.Timeline;
import com.kelvane.media.tool.input.VideoSource;
import com.kelvane.media.tool.input.VideoTrack;
import com.kelvane.media.tool.output.LostPictures;
import com.kelvane.media.tool.output.PictureFigures;
import com.kelvane.media.tool.output.PictureTimes;
import com.kelvane.media.tool.output.RateReducer;
import com.kelvane.media.tool.output.Results;
import com.kelvane.media.tool.output.SegmentKeys;
import com.kelvane.media.tool.shell.Progress;
import java.io.IOException;
import java.io.UncheckedIOException;
import java.util.List;

/** Runs a source's access units through the library's transcoder. */
final class Transcoding {
    // Pictures decoded ahead for each thread, and whatever the machine; one of 1920x1080 is 3 MB.
    private static final int AHEAD = 2;
    private static final int MOST_AHEAD = 16;

    private final Timeline timeline;
    private final RateReducer[] reducers;
    private final PictureTimes times = new PictureTimes();
    private final Results results;
    private final SegmentKeys segments;
    private final List<PictureFigures> figures;
    private final PictureTimes shown = new PictureTimes();
    private final LostPictures lost = new LostPictures();
    private long takenTime = Long.MIN_VALUE;
    private int taken; // renditions that have the picture of that time
    private long last = Long.MIN_VALUE;
    private Transcoder.Statistics statistics;
    private double cpuSeconds;
    private double seconds;

    /**
     * @param rates pictures per second of each rendition
     * @param segments null where there are none
     * @param results take what comes out
     */
    Transcoding(VideoTrack track, Timeline timeline, List<Double> rates, SegmentKeys segments, Results results) {
        this.timeline = timeline;
        this.results = results;
        reducers = rates.stream().map(rate -> new RateReducer(track.frameRate(), rate)).toArray(RateReducer[]::new);
        this.segments = segments;
        figures = rates.stream().map(rate -> new PictureFigures()).toList();
    }

    /** @param threads that decode and encode, the calling one among them */
    void run(List<Rendition> renditions, int threads, VideoSource source, double expectedSeconds) throws IOException {
        long begin = System.nanoTime();
        Transcoder.Builder settings = Transcoder.builder().renditions(renditions).plan(this::plan).onFailure(lost);
        try (Cores cores = new Cores(threads - 1);
                Transcoder transcoder = (threads == 1 ? settings
                        : settings.parallel(cores).lookahead(Math.min(AHEAD * threads, MOST_AHEAD))).open();
                Progress progress = new Progress(Math.round(1000 * expectedSeconds))) {
            for (AccessUnit unit = source.next(); unit != null && last < timeline.length(); unit = source.next()) {
                transcoder.write(unit.bytes(), unit.time(), this::take);
                progress.update(shown.last(), transcoder.statistics().pictures(), shown.last());
            }
            transcoder.drain(this::take);
            statistics = transcoder.statistics();
            cpuSeconds = cores.cpuSeconds();
        } catch (UncheckedIOException fromCallback) {
            throw fromCallback.getCause();
        }
        seconds = (System.nanoTime() - begin) / 1e9;
    }

    private void plan(PicturePlan picture) {
        last = picture.time();
        if (!timeline.shows(last)) {
            picture.selectAll(false);
            return;
        }
        shown.add(last);
        if (RateReducer.thin(reducers, 0, last, picture) && segments != null && segments.begins(last)) {
            picture.keyAll();
        }
    }

    private void take(EncodedPicture picture) {
        long time = picture.time();
        taken = time == takenTime ? taken + 1 : 1;
        takenTime = time;
        if (taken == reducers.length) {
            times.add(time);
        }
        try {
            figures.get(picture.index()).add(time, picture.size(), picture.isKey());
            results.write(picture.index(), picture.copy(), time, time, picture.isKey());
        } catch (IOException problem) {
            throw new UncheckedIOException(problem);
        }
    }

    /** Times of the pictures that are in every rendition. */
    PictureTimes times() {
        return times;
    }

    /** What became of the pictures of each rendition. */
    List<PictureFigures> figures() {
        return figures;
    }

    /** Time of the picture that was decoded last. */
    long last() {
        return last;
    }

    /** Times of the pictures that were decoded and lie within what is asked for. */
    PictureTimes shown() {
        return shown;
    }

    /** What encoders failed at. */
    LostPictures lost() {
        return lost;
    }

    Transcoder.Statistics statistics() {
        return statistics;
    }

    /** CPU time of the transcoding threads. */
    double cpuSeconds() {
        return cpuSeconds;
    }

    /** Time by the clock. */
    double seconds() {
        return seconds;
    }
}
