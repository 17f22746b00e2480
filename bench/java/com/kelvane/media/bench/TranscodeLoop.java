package com.kelvane.media.bench;

import com.kelvane.media.transform.codec.MIRVProcessor;
import java.io.IOException;
import java.lang.management.ManagementFactory;
import java.nio.ByteBuffer;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.Arrays;
import java.util.List;

/**
 * The transcoder through Java, as a media server drives it: the CPU time of the calling thread and the process's
 * memory, round by round. Arguments: STREAM.h264 ROUNDS WIDTHxHEIGHT@BITRATE...
 */
public final class TranscodeLoop {
    private long bytes;
    private int pictures;

    public static void main(String[] arguments) throws IOException {
        List<byte[]> units = accessUnits(Files.readAllBytes(Path.of(arguments[0])));
        String[] renditions = Arrays.copyOfRange(arguments, 2, arguments.length);
        for (int round = 0; round < Integer.parseInt(arguments[1]); round++) {
            TranscodeLoop loop = new TranscodeLoop();
            long before = ManagementFactory.getThreadMXBean().getCurrentThreadCpuTime();
            loop.transcode(units, renditions);
            long after = ManagementFactory.getThreadMXBean().getCurrentThreadCpuTime();
            System.err.printf("through Java: %d pictures, %d bytes, %.2f s of CPU, %d MB resident%n",
                    loop.pictures / renditions.length, loop.bytes, (after - before) / 1e9, residentMegabytes());
        }
    }

    private void transcode(List<byte[]> units, String[] renditions) {
        long handle = MIRVProcessor.open(renditions.length);
        for (int id = 1; id <= renditions.length; id++) {
            String[] numbers = renditions[id - 1].split("[x@]");
            MIRVProcessor.apply(id, "videoWidth", numbers[0], handle);
            MIRVProcessor.apply(id, "videoHeight", numbers[1], handle);
            MIRVProcessor.apply(id, "videoBR", numbers[2], handle);
            MIRVProcessor.apply(id, "videoFPS", "30", handle);
            MIRVProcessor.apply(id, "videoKey", "60", handle);
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

    private static List<byte[]> accessUnits(byte[] stream) {
        List<byte[]> units = new ArrayList<>();
        int start = 0;
        for (int at = 1; at <= stream.length; at++) {
            boolean delimiter = at + 5 <= stream.length && stream[at] == 0 && stream[at + 1] == 0
                    && stream[at + 2] == 0 && stream[at + 3] == 1 && stream[at + 4] == 9;
            if (delimiter || at == stream.length) {
                units.add(Arrays.copyOfRange(stream, start, at));
                start = at;
            }
        }
        return units;
    }

    private static long residentMegabytes() throws IOException {
        String pages = Files.readString(Path.of("/proc/self/statm")).split(" ")[1];
        return Long.parseLong(pages) * 4096 / 1_000_000;
    }
}
