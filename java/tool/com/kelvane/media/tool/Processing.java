package com.kelvane.media.tool;

import com.kelvane.media.transform.codec.AVCDecoder;
import com.kelvane.media.transform.codec.AVCProcessor;
import java.io.IOException;
import java.nio.ByteBuffer;
import java.util.ArrayList;
import java.util.List;

/** Runs a source's access units through a processing pipeline. */
final class Processing {
    private static final int UNTOUCHED = -1;

    private final boolean passThrough;
    private final PictureTimes times;
    private final RenditionOutput output;
    private final List<Long> kept = new ArrayList<>();
    private int dropped;
    private long nanoseconds;

    /** @param reorderDepth pictures that the source's decoder may hold back */
    Processing(int reorderDepth, boolean passThrough, RenditionOutput output) {
        this.passThrough = passThrough;
        this.output = output;
        times = new PictureTimes(passThrough ? 0 : reorderDepth);
    }

    void run(AccessUnits source, long pipeline) throws IOException {
        long decoder = AVCDecoder.open(); // also silences FFmpeg's log for the whole process
        try (AccessUnits.Reader reader = source.read(); Progress progress = new Progress(source.count())) {
            for (int i = 0; i < source.count(); i++) {
                times.add(source.time(i));
                write(reader.next(), pipeline, decoder);
                progress.update(i + 1, times.count(), times.last());
            }
        } finally {
            AVCDecoder.close(decoder);
        }
    }

    private void write(byte[] accessUnit, long pipeline, long decoder) throws IOException {
        long begin = System.nanoTime();
        if (!passThrough) {
            // Decodes once more, alone, to tell the decoder's time from that of module and encoder; the picture is refused.
            AVCDecoder.decode(accessUnit, new byte[6], new byte[0], decoder);
        }
        long decoded = System.nanoTime();
        // With reordered pictures this is not the access unit's own time: the module is to get that of the picture it sees.
        ByteBuffer number = ByteBuffer.allocate(Integer.BYTES).putInt(0, UNTOUCHED);
        int result = AVCProcessor.write(times.next(), accessUnit, number.array(), pipeline);
        nanoseconds += System.nanoTime() - decoded - (decoded - begin);
        int size = number.getInt(0);
        if (size == UNTOUCHED && result != 1) {
            return;
        }
        times.take();
        if (size == UNTOUCHED) {
            dropped++;
        } else if (size == 0) {
            output.skip();
        } else {
            byte[] data = new byte[size];
            AVCProcessor.read(number.array(), data, pipeline);
            output.write(ByteBuffer.wrap(data), Integer.toUnsignedLong(number.getInt(0)), times.last());
            kept.add(times.last());
        }
    }

    /** Times of the decoded pictures or, in pass-through mode, of the access units. */
    PictureTimes times() {
        return times;
    }

    /** Times in the source of the pictures that were delivered. */
    List<Long> kept() {
        return kept;
    }

    /** Pictures that the module did not keep. */
    int dropped() {
        return dropped;
    }

    /** Time that a picture takes in module and encoder or, in pass-through mode, an access unit in the module. */
    double millisecondsPerPicture() {
        return nanoseconds / 1e6 / times.count();
    }
}
