package com.kelvane.media.tool;

import com.kelvane.media.AccessUnit;
import com.kelvane.media.Pipeline;
import com.kelvane.media.tool.input.VideoSource;
import com.kelvane.media.tool.output.PictureTimes;
import com.kelvane.media.tool.output.Results;
import com.kelvane.media.tool.shell.Progress;
import java.io.IOException;
import java.io.UncheckedIOException;

/** Runs a source's access units through a processing pipeline. */
final class Processing {
    private final Pipeline pipeline;
    private final Results results;
    private final PictureTimes kept = new PictureTimes();
    private long last;

    /** @param results take what comes out */
    Processing(Pipeline pipeline, Results results) {
        this.pipeline = pipeline;
        this.results = results;
    }

    void run(VideoSource source, double expectedSeconds) throws IOException {
        try (Progress progress = new Progress(Math.round(1000 * expectedSeconds))) {
            for (AccessUnit unit = source.next(); unit != null; unit = source.next()) {
                pipeline.write(unit.bytes(), unit.time()).ifPresent(this::take);
                progress.update(kept.last(), pipeline.statistics().pictures(), kept.last());
            }
            pipeline.drain(this::take);
        } catch (UncheckedIOException fromCallback) {
            throw fromCallback.getCause();
        }
    }

    private void take(AccessUnit unit) {
        kept.add(pipeline.sourceTime());
        last = Math.max(last, unit.time());
        try {
            results.write(0, unit.bytes(), unit.time(), pipeline.sourceTime(), unit.isKey());
        } catch (IOException problem) {
            throw new UncheckedIOException(problem);
        }
    }

    /** Time of the picture that is shown last. */
    long last() {
        return last;
    }

    /** Times in the source of the pictures that were delivered. */
    PictureTimes kept() {
        return kept;
    }
}
