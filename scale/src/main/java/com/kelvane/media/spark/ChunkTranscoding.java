package com.kelvane.media.spark;

import com.kelvane.media.AccessUnit;
import com.kelvane.media.EncodedPicture;
import com.kelvane.media.PicturePlan;
import com.kelvane.media.Transcoder;
import com.kelvane.media.tool.output.LostPictures;
import com.kelvane.media.tool.output.RateReducer;
import com.kelvane.media.tool.output.SegmentKeys;
import com.kelvane.media.tool.output.RenditionOutput;
import com.kelvane.media.tool.output.Results;
import java.io.IOException;
import java.io.UncheckedIOException;
import java.util.List;
import java.util.function.LongPredicate;

/** Runs a chunk's access units through encoders of its own, so that nothing before the chunk has a part in the result. */
final class ChunkTranscoding {
    /** Access units in decoding order. */
    interface Units {
        /** The next one, or null. */
        AccessUnit next() throws IOException;
    }

    private final Ladder ladder;
    private final Results results;
    private final LongPredicate shown;
    private final RateReducer[] reducers;
    private final SegmentKeys segments;
    private long begin = -1;
    private long last;
    private final LostPictures lost = new LostPictures();
    private int pictures;

    /** @param shown whether the picture of a time belongs to the chunk */
    ChunkTranscoding(Ladder ladder, double sourceRate, SegmentKeys segments, LongPredicate shown, Results results) {
        this.ladder = ladder;
        this.results = results;
        this.shown = shown;
        reducers = ladder.outputs().stream().map(RenditionOutput::frameRate)
                .map(rate -> new RateReducer(sourceRate, rate)).toArray(RateReducer[]::new);
        this.segments = segments;
    }

    Transcoder.Statistics run(Units units) throws IOException {
        try (Transcoder transcoder = Transcoder.builder().renditions(ladder.renditions()).plan(this::plan)
                .onFailure(lost).open()) {
            for (AccessUnit unit = units.next(); unit != null; unit = units.next()) {
                transcoder.write(unit.bytes(), unit.time(), this::take);
            }
            transcoder.drain(this::take);
            return transcoder.statistics();
        } catch (UncheckedIOException fromCallback) {
            throw fromCallback.getCause();
        }
    }

    private void plan(PicturePlan picture) {
        long time = picture.time();
        if (!shown.test(time)) {
            picture.selectAll(false);
            return;
        }
        if (RateReducer.thin(reducers, 0, time, picture) && segments.begins(time)) {
            picture.keyAll();
        }
        begin = pictures == 0 ? time : begin;
        last = time;
        pictures++;
    }

    private void take(EncodedPicture picture) {
        try {
            results.write(picture.index(), picture.copy(), picture.time(), picture.time(), picture.isKey());
        } catch (IOException problem) {
            throw new UncheckedIOException(problem);
        }
    }

    /** Time of the first picture in milliseconds. */
    long begin() {
        return begin;
    }

    /** Time of the last picture in milliseconds. */
    long last() {
        return last;
    }

    /** What renditions lack because an encoder failed, in words; null when nothing. */
    String lacking() {
        List<String> lines = lost.lines(ladder.outputs().stream().map(RenditionOutput::size).toList());
        return lines.isEmpty() ? null : String.join("; ", lines);
    }

    /** Pictures that were decoded and belong to the chunk. */
    int pictures() {
        return pictures;
    }
}
