package com.kelvane.media.bench;

import java.io.IOException;
import java.nio.ByteBuffer;
import java.nio.ByteOrder;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.List;
import java.util.Map;

/** What one transcoder has of the C library's memory, by differences between ladders of more and more rungs. */
final class MemoryParts {
    private static final double MEGABYTE = 1e6;

    private MemoryParts() {
    }

    static void measure(Table table, Path folder, Packets source) throws IOException {
        double before = 0;
        List<Ladder.Rung> rungs = Ladder.of(720, 30, 3).rungs();
        for (int count = 0; count <= rungs.size(); count++) {
            Path counted = folder.resolve("allocations-memory");
            Files.deleteIfExists(counted);
            try (Floor floor = new Floor(Map.of("LD_PRELOAD", System.getProperty("bench.allocations"), "KELVANE_ALLOCATIONS",
                    counted.toString()))) {
                floor.run("ladder 0 1 " + source.file() + " " + new Ladder(30, rungs.subList(0, count)).forFloor(), Turns.none());
                double most = ByteBuffer.wrap(Files.readAllBytes(counted)).order(ByteOrder.nativeOrder()).getLong(24) / MEGABYTE;
                double packets = Files.size(source.file()) / MEGABYTE;
                String row = count == 0 ? "decoder" : "rendition of " + rungs.get(count - 1).width() + "x" + rungs.get(count - 1).height();
                table.put(row, "allocated at most, MB", count == 0 ? most - 2 * packets : most - before, 1);
                before = most;
                if (count == rungs.size()) {
                    table.put("all of a floor process", "allocated at most, MB", most - 2 * packets, 1)
                            .put("all of a floor process", "resident at most, MB", floor.mostResident() / MEGABYTE, 1)
                            .put("all of a floor process", "of it the program and libraries, MB",
                                    Floor.statusBytes(floor.pid(), "RssFile") / MEGABYTE, 1);
                }
            }
        }
    }
}
