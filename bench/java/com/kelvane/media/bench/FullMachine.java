package com.kelvane.media.bench;

import java.io.IOException;
import java.io.InputStream;
import java.io.OutputStream;
import java.nio.LongBuffer;
import java.nio.channels.FileChannel;
import java.nio.file.Files;
import java.nio.file.Path;
import java.nio.file.StandardOpenOption;
import java.util.ArrayList;
import java.util.List;
import java.util.Map;
import java.util.stream.LongStream;

/**
 * So many transcoders in one virtual machine, each on a thread of its own, beside as many processes of the floor: both sides
 * work for ever, and are stopped and continued in turns. What each worker has done stands in a file that all of them map.
 */
final class FullMachine {
    static final int COUNTER_STRIDE = 64; // bytes, a cache line
    static final int COUNTERS_SIZE = 4096;
    private static final int PICTURES_TO_WARM_UP = 12; // of each worker
    private static final double MEGABYTE = 1e6;

    private FullMachine() {
    }

    static void measure(Table table, String row, int count, Path folder, Ladder ladder, Packets source, int rounds,
            Map<String, String> environment) throws Exception {
        long slice = 2000 + 40L * count; // milliseconds
        try (Side bare = new Side(folder.resolve("counters-floor"), count); Side ours = new Side(folder.resolve("counters-api"), count)) {
            for (int i = 0; i < count; i++) {
                Floor floor = new Floor(environment);
                bare.processes.add(floor.process());
                floor.begin("loop " + bare.file + ":" + COUNTER_STRIDE * i + " " + source.file() + " " + ladder.forFloor());
            }
            warmUp(bare);
            Process machine = Child.start(List.of("-Xms64m", "-Xmx64m"), environment, Streams.class, Integer.toString(count),
                    ours.file.toString(), source.file().toString());
            ours.processes.add(machine);
            machine.getInputStream().read(); // it is ready, without transcoders
            Thread printed = new Thread(() -> discard(machine.getInputStream()));
            printed.setDaemon(true);
            printed.start();
            double empty = Floor.statusBytes(machine.pid(), "VmRSS");
            machine.getOutputStream().write('\n');
            machine.getOutputStream().flush();
            warmUp(ours);
            double[] rates = new double[rounds];
            double[] bareRates = new double[rounds];
            for (int round = 0; round < rounds; round++) {
                if (round % 2 == 0) {
                    bareRates[round] = bare.rate(slice);
                    rates[round] = ours.rate(slice);
                } else {
                    rates[round] = ours.rate(slice);
                    bareRates[round] = bare.rate(slice);
                }
            }
            double[] ratios = rates.clone();
            java.util.Arrays.setAll(ratios, i -> rates[i] / bareRates[i]);
            Contest.Result ratio = Contest.Result.of(ratios);
            double floorMemory = 0;
            double floorPrivate = 0;
            for (Process floor : bare.processes) {
                floorMemory += Floor.statusBytes(floor.pid(), "VmHWM") / MEGABYTE / count;
                floorPrivate += Floor.statusBytes(floor.pid(), "RssAnon") / MEGABYTE / count;
            }
            table.put(row, "floor, pictures/s", Contest.Result.of(bareRates).median(), 1)
                    .put(row, "API, pictures/s", Contest.Result.of(rates).median(), 1)
                    .put(row, "API to floor", ratio)
                    .put(row, "API, MB each", (Floor.statusBytes(machine.pid(), "VmHWM") - empty) / MEGABYTE / count, 1)
                    .put(row, "floor process, MB", floorMemory, 1).put(row, "of it its own, MB", floorPrivate, 1).tell(row);
        }
    }

    private static void discard(InputStream printed) {
        try (printed) {
            printed.transferTo(OutputStream.nullOutputStream());
        } catch (IOException ended) {
            // with its process
        }
    }

    private static void warmUp(Side side) throws IOException, InterruptedException {
        while (side.least() < PICTURES_TO_WARM_UP) {
            Thread.sleep(20);
        }
        side.signal("STOP");
    }

    /** Processes that work together or not at all. */
    private static final class Side implements AutoCloseable {
        final Path file;
        final List<Process> processes = new ArrayList<>();
        private final LongBuffer counters;
        private final int workers;

        Side(Path file, int workers) throws IOException {
            this.file = file;
            this.workers = workers;
            Files.write(file, new byte[COUNTERS_SIZE]);
            try (FileChannel channel = FileChannel.open(file, StandardOpenOption.READ)) {
                counters = channel.map(FileChannel.MapMode.READ_ONLY, 0, COUNTERS_SIZE).order(java.nio.ByteOrder.nativeOrder()).asLongBuffer();
            }
        }

        private LongStream counts() {
            return LongStream.range(0, workers).map(i -> counters.get((int) (COUNTER_STRIDE / Long.BYTES * i)));
        }

        long least() {
            return counts().min().orElseThrow();
        }

        /** Works for a while; {@return pictures a second} */
        double rate(long milliseconds) throws IOException, InterruptedException {
            long before = counts().sum();
            signal("CONT");
            long begun = System.nanoTime();
            Thread.sleep(milliseconds);
            signal("STOP");
            return (counts().sum() - before) * 1e9 / (System.nanoTime() - begun);
        }

        void signal(String signal) throws IOException, InterruptedException {
            List<String> command = new ArrayList<>(List.of("kill", "-" + signal));
            processes.forEach(process -> command.add(Long.toString(process.pid())));
            if (new ProcessBuilder(command).inheritIO().start().waitFor() != 0) {
                throw new IOException("a worker has ended");
            }
        }

        @Override
        public void close() {
            processes.forEach(Process::destroyForcibly);
        }
    }
}
