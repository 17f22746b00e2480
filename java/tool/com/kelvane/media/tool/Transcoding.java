package com.kelvane.media.tool;

import com.kelvane.media.EncodedPicture;
import com.kelvane.media.Rendition;
import com.kelvane.media.Transcoder;
import com.kelvane.media.VideoDecoder;
import com.kelvane.media.tool.input.AccessUnits;
import com.kelvane.media.tool.output.PictureTimes;
import com.kelvane.media.tool.output.RenditionOutput;
import com.kelvane.media.tool.shell.Progress;
import java.io.IOException;
import java.io.UncheckedIOException;
import java.lang.management.ManagementFactory;
import java.lang.management.ThreadMXBean;
import java.util.List;

/** Runs a source's access units through the library's transcoder. */
final class Transcoding {
    private final List<RenditionOutput> outputs;
    private final PictureTimes times = new PictureTimes();
    private Transcoder.Statistics statistics;
    private double cpuSeconds;
    private double seconds;

    /** @param outputs take what comes out, in the order of the renditions */
    Transcoding(List<RenditionOutput> outputs) {
        this.outputs = outputs;
    }

    void run(List<Rendition> renditions, AccessUnits source) throws IOException {
        ThreadMXBean threads = ManagementFactory.getThreadMXBean();
        long cpuBegin = threads.getCurrentThreadCpuTime();
        long begin = System.nanoTime();
        VideoDecoder.open().close(); // silences FFmpeg's log for the whole process; damage is counted, not logged
        try (Transcoder transcoder = Transcoder.builder().renditions(renditions).open();
                AccessUnits.Reader reader = source.read(); Progress progress = new Progress(source.count())) {
            for (int i = 0; i < source.count(); i++) {
                transcoder.write(reader.next(), source.time(i), this::take);
                progress.update(i + 1, transcoder.statistics().pictures(), times.last());
            }
            transcoder.drain(this::take);
            statistics = transcoder.statistics();
        } catch (UncheckedIOException fromCallback) {
            throw fromCallback.getCause();
        }
        seconds = (System.nanoTime() - begin) / 1e9;
        cpuSeconds = (threads.getCurrentThreadCpuTime() - cpuBegin) / 1e9;
    }

    private void take(EncodedPicture picture) {
        times.add(picture.time());
        try {
            outputs.get(picture.index()).write(picture.copy(), picture.time(), picture.time());
        } catch (IOException problem) {
            throw new UncheckedIOException(problem);
        }
    }

    /** Times of the pictures that were encoded. */
    PictureTimes times() {
        return times;
    }

    Transcoder.Statistics statistics() {
        return statistics;
    }

    /** CPU time of the transcoding thread. */
    double cpuSeconds() {
        return cpuSeconds;
    }

    /** Time by the clock. */
    double seconds() {
        return seconds;
    }
}
