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
import java.util.ArrayList;
import java.util.List;
import java.util.Map;
import java.util.function.ToLongFunction;

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

    private static final int WARM_UP_ROUNDS = 3; // while the virtual machine's compiler takes memory, too
    private static final int ROUNDS = 5;

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
        List<Counts> differences = new ArrayList<>();
        for (int round = -WARM_UP_ROUNDS; round < ROUNDS; round++) {
            Counts shorter = during(counted, process, once);
            Counts difference = during(counted, process, twice).minus(shorter);
            if (round >= 0) {
                differences.add(difference);
            }
        }
        report("allocations", differences, pictures, Counts::allocations);
        report("allocated, KB", differences, 1000.0 * pictures, Counts::bytes);
        report("page faults", differences, pictures, Counts::faults);
        report("context switches", differences, pictures, Counts::switches);
        report("Java heap, bytes", differences, pictures, Counts::heap);
    }

    private static void report(String name, List<Counts> differences, double pictures, ToLongFunction<Counts> count) {
        Child.report(name, Contest.Result.of(differences.stream().mapToDouble(count::applyAsLong).toArray()).median() / pictures);
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
