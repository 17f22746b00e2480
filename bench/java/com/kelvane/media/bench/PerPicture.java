package com.kelvane.media.bench;

import com.sun.management.ThreadMXBean;
import java.io.IOException;
import java.lang.management.ManagementFactory;
import java.nio.ByteBuffer;
import java.nio.ByteOrder;
import java.nio.channels.FileChannel;
import java.nio.file.Files;
import java.nio.file.Path;
import java.nio.file.StandardOpenOption;
import java.util.List;
import java.util.Map;

/**
 * What a picture costs beside time, in steady state: two passes of a kind, one twice as long as the other, and the
 * difference shared among the pictures between them. The counter of allocations is preloaded. Arguments: KIND PACKETS
 */
public final class PerPicture {
    private record Counts(long allocations, long bytes, long faults, long switches, long heap) {
        Counts minus(Counts other) {
            return new Counts(allocations - other.allocations, bytes - other.bytes, faults - other.faults,
                    switches - other.switches, heap - other.heap);
        }
    }

    private PerPicture() {
    }

    public static void main(String[] arguments) throws Exception {
        List<byte[]> units = Packets.read(Path.of(arguments[1])).list();
        Path counted = Path.of(System.getenv("KELVANE_ALLOCATIONS"));
        if (arguments[0].equals("floor")) {
            Path floorCounted = Path.of(counted + ".floor");
            try (Floor floor = new Floor(Map.of("KELVANE_ALLOCATIONS", floorCounted.toString()))) {
                Packets once = new Packets(Path.of(arguments[1]), units);
                Packets twice = Packets.write(Path.of(arguments[1] + ".twice"), doubled(units));
                report(units.size(), floorCounted, floor.pid(), floor.pass("ladder", once.file(), Ladder.of(720, 30, 3).forFloor()),
                        floor.pass("ladder", twice.file(), Ladder.of(720, 30, 3).forFloor()));
            }
            return;
        }
        Contest.Pass once = pass(arguments[0], units);
        Contest.Pass twice = pass(arguments[0], doubled(units));
        report(units.size(), counted, ProcessHandle.current().pid(), once, twice);
    }

    private static List<byte[]> doubled(List<byte[]> units) {
        return java.util.stream.Stream.concat(units.stream(), units.stream()).toList();
    }

    private static Contest.Pass pass(String kind, List<byte[]> units) {
        return switch (kind) {
            case "api" -> Ladder.of(720, 30, 3).api(units, null);
            case "natives" -> Ladder.of(720, 30, 3).natives(units);
            case "decode" -> Engines.decode(units);
            case "pipeline" -> Engines.pipeline(units, 30, null);
            default -> throw new IllegalArgumentException(kind);
        };
    }

    private static void report(int pictures, Path counted, long process, Contest.Pass once, Contest.Pass twice) throws Exception {
        for (int i = 0; i < 4; i++) { // the virtual machine's compiler is busy for a while
            twice.run(false);
        }
        Counts short1 = during(counted, process, once);
        Counts long1 = during(counted, process, twice);
        Counts each = long1.minus(short1);
        Child.report("allocations", (double) each.allocations / pictures);
        Child.report("allocated, KB", each.bytes / 1e3 / pictures);
        Child.report("page faults", (double) each.faults / pictures);
        Child.report("context switches", (double) each.switches / pictures);
        Child.report("Java heap, bytes", (double) each.heap / pictures);
    }

    private static Counts during(Path counted, long process, Contest.Pass pass) throws Exception {
        Counts before = now(counted, process);
        pass.run(false);
        return now(counted, process).minus(before);
    }

    private static Counts now(Path counted, long process) throws IOException {
        ByteBuffer file = ByteBuffer.allocate(16).order(ByteOrder.nativeOrder());
        try (FileChannel channel = FileChannel.open(counted, StandardOpenOption.READ)) {
            channel.read(file);
        }
        boolean own = process == ProcessHandle.current().pid();
        Path task = own ? Path.of("/proc/thread-self") : Path.of("/proc/" + process);
        long heap = own ? ((ThreadMXBean) ManagementFactory.getThreadMXBean()).getCurrentThreadAllocatedBytes() : 0;
        String[] stat = Files.readString(task.resolve("stat")).replaceFirst(".*\\) ", "").split(" ");
        long switches = Files.readAllLines(task.resolve("status")).stream().filter(line -> line.contains("ctxt_switches"))
                .mapToLong(line -> Long.parseLong(line.replaceAll("\\D", ""))).sum();
        return new Counts(file.getLong(0), file.getLong(8), Long.parseLong(stat[7]), switches, heap);
    }
}
