package com.kelvane.media.bench;

import com.kelvane.media.AccessUnit;
import com.kelvane.media.EncodedPicture;
import com.kelvane.media.Rendition;
import com.kelvane.media.Transcoder;
import com.kelvane.media.transform.codec.MIRVProcessor;
import java.io.IOException;
import java.lang.management.ManagementFactory;
import java.nio.ByteBuffer;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.Arrays;
import java.util.List;

/**
 * The transcoder as a media server drives it, through the typed API or through the native methods alone: the CPU time of the
 * calling thread and the process's memory, round by round. Arguments: api|natives STREAM.h264 ROUNDS
 * WIDTHxHEIGHT@BITRATE...
 */
public final class TranscodeLoop {
    private static final int FRAME_RATE = 30;
    private static final int KEY_INTERVAL = 60;

    private long bytes;
    private int pictures;

    public static void main(String[] arguments) throws IOException {
        boolean api = arguments[0].equals("api");
        List<byte[]> units = AccessUnit.split(Files.readAllBytes(Path.of(arguments[1])));
        String[] renditions = Arrays.copyOfRange(arguments, 3, arguments.length);
        for (int round = 0; round < Integer.parseInt(arguments[2]); round++) {
            TranscodeLoop loop = new TranscodeLoop();
            long before = ManagementFactory.getThreadMXBean().getCurrentThreadCpuTime();
            if (api) {
                loop.throughApi(units, renditions);
            } else {
                loop.throughNatives(units, renditions);
            }
            long after = ManagementFactory.getThreadMXBean().getCurrentThreadCpuTime();
            System.err.printf("%s: %d pictures, %d bytes, %.2f s of CPU, %d MB resident%n", arguments[0],
                    loop.pictures / renditions.length, loop.bytes, (after - before) / 1e9, residentMegabytes());
        }
    }

    private void throughApi(List<byte[]> units, String[] renditions) {
        Transcoder.Builder builder = Transcoder.builder();
        for (String rendition : renditions) {
            String[] numbers = rendition.split("[x@]");
            builder.rendition(Rendition.of(Integer.parseInt(numbers[0]), Integer.parseInt(numbers[1]))
                    .bitrate(Integer.parseInt(numbers[2])).frameRate(FRAME_RATE).keyInterval(KEY_INTERVAL));
        }
        try (Transcoder transcoder = builder.open()) {
            long time = 0;
            for (byte[] unit : units) {
                transcoder.write(unit, 33 * time++, this::count);
            }
            transcoder.drain(this::count);
        }
    }

    private void count(EncodedPicture picture) {
        pictures++;
        bytes += picture.data().remaining();
    }

    private void throughNatives(List<byte[]> units, String[] renditions) {
        long handle = MIRVProcessor.open(renditions.length);
        for (int id = 1; id <= renditions.length; id++) {
            String[] numbers = renditions[id - 1].split("[x@]");
            MIRVProcessor.apply(id, "videoWidth", numbers[0], handle);
            MIRVProcessor.apply(id, "videoHeight", numbers[1], handle);
            MIRVProcessor.apply(id, "videoBR", numbers[2], handle);
            MIRVProcessor.apply(id, "videoFPS", Integer.toString(FRAME_RATE), handle);
            MIRVProcessor.apply(id, "videoKey", Integer.toString(KEY_INTERVAL), handle);
        }
        MIRVProcessor.start(handle);
        long time = 0;
        for (byte[] unit : units) {
            MIRVProcessor.write(this, 33 * time++, unit, handle);
        }
        MIRVProcessor.close(handle);
    }

    /** Called by the library. */
    public void receiveVideo(int index, int timestamp, ByteBuffer data) {
        if (data != null) {
            pictures++;
            bytes += data.remaining();
        }
    }

    private static long residentMegabytes() throws IOException {
        String pages = Files.readString(Path.of("/proc/self/statm")).split(" ")[1];
        return Long.parseLong(pages) * 4096 / 1_000_000;
    }
}
