package com.kelvane.media.tool;

import com.kelvane.media.transform.codec.AVCDecoder;
import com.kelvane.media.transform.codec.MIRVProcessor;
import java.io.IOException;
import java.io.UncheckedIOException;
import java.lang.management.ManagementFactory;
import java.lang.management.ThreadMXBean;
import java.nio.ByteBuffer;
import java.util.List;

/** Runs a source's access units through the library's transcoder; the renditions come back to {@link #receiveVideo}. */
final class Transcoding {
    private final PictureTimes times;
    private final List<RenditionOutput> outputs;
    private final long[] spent;
    private final boolean[] delivered;
    private boolean timed;
    private long callbackEnd;
    private double cpuSeconds;
    private double seconds;

    /** @param reorderDepth pictures that the source's decoder may hold back */
    Transcoding(int reorderDepth, List<RenditionOutput> outputs) {
        times = new PictureTimes(reorderDepth);
        this.outputs = outputs;
        spent = new long[outputs.size()];
        delivered = new boolean[outputs.size()];
    }

    void run(AccessUnits source) throws IOException {
        ThreadMXBean threads = ManagementFactory.getThreadMXBean();
        long cpuBegin = threads.getCurrentThreadCpuTime();
        long begin = System.nanoTime();
        AVCDecoder.close(AVCDecoder.open()); // silences FFmpeg's log for the whole process; damage is counted, not logged
        long transcoder = MIRVProcessor.open(outputs.size());
        if (transcoder == 0) {
            throw new Failure("the library could not make a transcoder of %d renditions", outputs.size());
        }
        try (AccessUnits.Reader reader = source.read(); Progress progress = new Progress(source.count())) {
            for (int i = 0; i < outputs.size(); i++) {
                outputs.get(i).rendition().apply(i + 1, transcoder);
            }
            MIRVProcessor.start(transcoder);
            for (int i = 0; i < source.count(); i++) {
                write(reader.next(), source.time(i), transcoder);
                progress.update(i + 1, times.count(), times.last());
            }
        } catch (UncheckedIOException fromCallback) {
            throw fromCallback.getCause();
        } finally {
            MIRVProcessor.close(transcoder);
        }
        seconds = (System.nanoTime() - begin) / 1e9;
        cpuSeconds = (threads.getCurrentThreadCpuTime() - cpuBegin) / 1e9;
    }

    private void write(byte[] accessUnit, long time, long transcoder) {
        times.add(time);
        timed = false;
        callbackEnd = System.nanoTime();
        if (MIRVProcessor.write(this, time, accessUnit, transcoder) != 1) {
            return;
        }
        takeTime();
        for (int i = 0; i < outputs.size(); i++) {
            outputs.get(i).addTime(spent[i]);
            if (!delivered[i]) {
                outputs.get(i).skip();
            }
        }
    }

    /**
     * Called by the library during each write, once for each rendition.
     *
     * @param index the rendition's id, from 1
     * @param timestamp that of the write, which with reordered pictures is another picture's
     * @param data an access unit, valid during this call; null when there is none
     */
    public void receiveVideo(int index, int timestamp, ByteBuffer data) {
        spent[index - 1] = System.nanoTime() - callbackEnd;
        delivered[index - 1] = data != null;
        if (data != null) {
            takeTime();
            try {
                outputs.get(index - 1).write(data, times.last(), times.last());
            } catch (IOException problem) {
                throw new UncheckedIOException(problem);
            }
        }
        callbackEnd = System.nanoTime();
    }

    private void takeTime() {
        if (!timed) {
            times.take();
            timed = true;
        }
    }

    /** Times of the decoded pictures. */
    PictureTimes times() {
        return times;
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
