package com.kelvane.media.tool;

import com.kelvane.media.transform.codec.AVCDecoder;
import com.kelvane.media.transform.codec.MIRVProcessor;
import java.io.IOException;
import java.io.UncheckedIOException;
import java.lang.management.ManagementFactory;
import java.lang.management.ThreadMXBean;
import java.nio.ByteBuffer;
import java.util.ArrayList;
import java.util.List;
import java.util.PriorityQueue;

/** Runs a source's access units through the library's transcoder; the renditions come back to {@link #receiveVideo}. */
final class Transcoding {
    private final int reorderDepth;
    private final List<RenditionOutput> outputs;
    private final long[] spent;
    private final boolean[] delivered;
    private final PriorityQueue<Long> waiting = new PriorityQueue<>();
    private final List<Long> times = new ArrayList<>();
    private boolean timed;
    private long callbackEnd;
    private double cpuSeconds;
    private double seconds;

    /** @param reorderDepth pictures that the source's decoder may hold back */
    Transcoding(int reorderDepth, List<RenditionOutput> outputs) {
        this.reorderDepth = reorderDepth;
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
                progress.update(i + 1, times.size(), lastTime());
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
        waiting.add(time);
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
                outputs.get(index - 1).write(data, lastTime());
            } catch (IOException problem) {
                throw new UncheckedIOException(problem);
            }
        }
        callbackEnd = System.nanoTime();
    }

    /**
     * Finds the time of the picture that came out of this write: pictures leave the decoder in display order, so it is
     * the earliest still waiting. More times waiting than the decoder holds pictures belong to pictures that were lost.
     */
    private void takeTime() {
        if (!timed) {
            while (waiting.size() > reorderDepth + 1) {
                waiting.remove();
            }
            times.add(waiting.remove());
            timed = true;
        }
    }

    private long lastTime() {
        return times.isEmpty() ? 0 : times.get(times.size() - 1);
    }

    /** Presentation times of the decoded pictures in milliseconds, in display order. */
    List<Long> times() {
        return times;
    }

    /** Time that the decoded pictures take, the last one as long as the others on average. */
    double mediaSeconds(double frameRate) {
        int intervals = times.size() - 1;
        double span = (lastTime() - times.get(0)) / 1000.0;
        return intervals > 0 && span > 0 ? span * (intervals + 1) / intervals : 1 / frameRate;
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
