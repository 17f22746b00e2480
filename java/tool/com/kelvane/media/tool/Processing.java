package com.kelvane.media.tool;

import com.kelvane.media.AccessUnit;
import com.kelvane.media.Pipeline;
import com.kelvane.media.VideoDecoder;
import com.kelvane.media.tool.input.AccessUnits;
import com.kelvane.media.tool.output.PictureTimes;
import com.kelvane.media.tool.output.RenditionOutput;
import com.kelvane.media.tool.shell.Progress;
import java.io.IOException;
import java.io.UncheckedIOException;

/** Runs a source's access units through a processing pipeline. */
final class Processing {
    private final Pipeline pipeline;
    private final RenditionOutput output;
    private final PictureTimes kept = new PictureTimes();

    Processing(Pipeline pipeline, RenditionOutput output) {
        this.pipeline = pipeline;
        this.output = output;
    }

    void run(AccessUnits source) throws IOException {
        VideoDecoder.open().close(); // silences FFmpeg's log for the whole process
        try (AccessUnits.Reader reader = source.read(); Progress progress = new Progress(source.count())) {
            for (int i = 0; i < source.count(); i++) {
                pipeline.write(reader.next(), source.time(i)).ifPresent(this::take);
                progress.update(i + 1, pipeline.statistics().pictures(), kept.last());
            }
            pipeline.drain(this::take);
        } catch (UncheckedIOException fromCallback) {
            throw fromCallback.getCause();
        }
    }

    private void take(AccessUnit unit) {
        kept.add(pipeline.sourceTime());
        try {
            output.write(unit.bytes(), unit.time(), pipeline.sourceTime());
        } catch (IOException problem) {
            throw new UncheckedIOException(problem);
        }
    }

    /** Times in the source of the pictures that were delivered. */
    PictureTimes kept() {
        return kept;
    }
}
