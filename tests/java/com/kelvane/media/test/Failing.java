package com.kelvane.media.test;

import com.kelvane.media.Rendition;
import com.kelvane.media.Transcoder;
import java.io.IOException;
import java.nio.file.Files;
import java.nio.file.Path;

/** 3,000 pictures at which each encoder fails, whichever OpenH264 is there. */
public final class Failing {
    private static final int PICTURES = 3000;

    public static void main(String[] arguments) throws IOException {
        byte[][] units = new byte[8][];
        for (int i = 0; i < units.length; i++) {
            units[i] = Uncompressed.accessUnit(Uncompressed.noise(64, 48, 40 * i, true));
        }
        int[] told = new int[1];
        try (Transcoder transcoder = Transcoder.builder().rendition(Rendition.of(64, 48).bitrate(100_000))
                .onFailure(failure -> told[0] += failure.lost() ? 1 : 0).open()) {
            long before = 0;
            for (int i = 0; i < PICTURES; i++) {
                if (i == PICTURES / 10) {
                    before = residentKilobytes();
                }
                transcoder.write(units[i % units.length], 40L * i, picture -> { });
            }
            System.out.println("\n" + transcoder.statistics().renditions().get(0).failed() + " failed, " + told[0] + " told");
            System.out.println("memory grew by " + Math.max(0, (residentKilobytes() - before) / 1024) + " MB");
        }
    }

    private static long residentKilobytes() throws IOException {
        return Long.parseLong(Files.readAllLines(Path.of("/proc/self/status")).stream()
                .filter(line -> line.startsWith("VmRSS:")).findFirst().orElseThrow().replaceAll("\\D", ""));
    }
}
