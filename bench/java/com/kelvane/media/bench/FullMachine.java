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
import java.util.function.Function;
import java.util.function.LongPredicate;
import java.util.function.ToDoubleFunction;
import java.util.stream.LongStream;

/**
 * So many transcoders in one virtual machine, each on a thread of its own, beside as many processes of the floor: both sides
 * work for ever, and are stopped and continued in turns. What each worker has done stands in a file that all of them map.
 */
final class FullMachine {
    static final int COUNTER_STRIDE = 64; // bytes, a cache line
    static final int COUNTERS_SIZE = 4096;
    static final long READY = -1; // in a counter: a virtual machine is warm, without transcoders
    static final int PICTURES_TO_WARM_UP = 12; // of each worker, which then waits for the others, so that all have the same ahead
    private static final int TURNS = 12;
    private static final long SLICE = 250; // milliseconds; neighbours of the host come and go in seconds
    private static final long SLICE_OF_EACH = 5; // milliseconds more for each worker
    private static final double MEGABYTE = 1e6;

    private FullMachine() {
    }

    static void measure(Table table, String row, int count, Path folder, Ladder ladder, Packets source, int launches,
            Map<String, String> environment) throws Exception {
        List<Launch> all = new ArrayList<>();
        for (int launch = 0; launch < launches; launch++) {
            all.add(launch(count, folder, ladder, source, environment));
        }
        Function<ToDoubleFunction<Launch>, Contest.Result> over = figure -> Contest.Result.of(all.stream().mapToDouble(figure).toArray());
        table.put(row, "floor, pictures/s", over.apply(Launch::floorRate).median(), 1)
                .put(row, "API, pictures/s", over.apply(Launch::rate).median(), 1)
                .put(row, "API to floor", over.apply(launch -> launch.rate / launch.floorRate))
                .put(row, "API, MB each", over.apply(Launch::memory).median() / MEGABYTE, 1)
                .put(row, "floor process, MB", over.apply(Launch::floorMemory).median() / MEGABYTE, 1)
                .put(row, "of it its own, MB", over.apply(Launch::floorOwnMemory).median() / MEGABYTE, 1).tell(row);
    }

    /** Pictures a second of all together, and bytes for each. */
    private record Launch(double floorRate, double rate, double memory, double floorMemory, double floorOwnMemory) {
    }

    private static Launch launch(int count, Path folder, Ladder ladder, Packets source, Map<String, String> environment) throws Exception {
        try (Side bare = new Side(folder.resolve("counters-floor"), count); Side ours = new Side(folder.resolve("counters-api"), count)) {
            for (int i = 0; i < count; i++) {
                Floor floor = new Floor(environment);
                bare.processes.add(floor.process());
                floor.begin("loop " + bare.file + ":" + COUNTER_STRIDE * i + " " + PICTURES_TO_WARM_UP + " " + source.file() + " "
                        + ladder.forFloor());
            }
            warmUp(bare);
            Process machine = Child.start(List.of("-Xms64m", "-Xmx64m"), environment, Streams.class, Integer.toString(count),
                    ours.file.toString(), source.file().toString());
            ours.processes.add(machine);
            Thread printed = new Thread(() -> discard(machine.getInputStream()));
            printed.setDaemon(true);
            printed.start();
            ours.await(least -> least == READY);
            double empty = Floor.statusBytes(machine.pid(), "VmRSS");
            machine.getOutputStream().write('\n');
            machine.getOutputStream().flush();
            warmUp(ours);
            double floorRate = 0;
            double rate = 0;
            for (int turn = 0; turn < TURNS; turn++) {
                floorRate += bare.rate(SLICE + SLICE_OF_EACH * count) / TURNS;
                rate += ours.rate(SLICE + SLICE_OF_EACH * count) / TURNS;
            }
            return new Launch(floorRate, rate, (Floor.statusBytes(machine.pid(), "VmHWM") - empty) / count,
                    bare.bytes("VmHWM") / count, bare.bytes("RssAnon") / count);
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
        side.await(least -> least >= PICTURES_TO_WARM_UP);
        side.signal("STOP");
        side.go();
    }

    /** Processes that work together or not at all. */
    private static final class Side implements AutoCloseable {
        final Path file;
        final List<Process> processes = new ArrayList<>();
        private final LongBuffer counters;
        private final int workers;
        private final Process shell = new ProcessBuilder("bash", "-c", "while read -r line; do kill $line && echo sent || exit; done")
                .redirectError(ProcessBuilder.Redirect.INHERIT).start();

        Side(Path file, int workers) throws IOException {
            this.file = file;
            this.workers = workers;
            Files.write(file, new byte[COUNTERS_SIZE]);
            try (FileChannel channel = FileChannel.open(file, StandardOpenOption.READ, StandardOpenOption.WRITE)) {
                counters = channel.map(FileChannel.MapMode.READ_WRITE, 0, COUNTERS_SIZE).order(java.nio.ByteOrder.nativeOrder()).asLongBuffer();
            }
        }

        /** Lets workers go on that have warmed up. */
        void go() {
            for (int i = 0; i < workers; i++) {
                counters.put(COUNTER_STRIDE / Long.BYTES * i + 1, 1);
            }
        }

        /** Waits until the least of the counters is as it should be. */
        void await(LongPredicate reached) throws IOException, InterruptedException {
            while (!reached.test(counts().min().orElseThrow())) {
                if (!processes.stream().allMatch(Process::isAlive)) {
                    throw new IOException("a worker has ended");
                }
                Thread.sleep(20);
            }
        }

        double bytes(String status) throws IOException {
            double sum = 0;
            for (Process process : processes) {
                sum += Floor.statusBytes(process.pid(), status);
            }
            return sum;
        }

        private LongStream counts() {
            return LongStream.range(0, workers).map(i -> counters.get((int) (COUNTER_STRIDE / Long.BYTES * i)));
        }

        // The clock runs while signals are on their way: on a full machine others may have to wait for a processor then.
        /** Works for a while; {@return pictures a second} */
        double rate(long milliseconds) throws IOException, InterruptedException {
            long before = counts().sum();
            long begun = System.nanoTime();
            signal("CONT");
            Thread.sleep(milliseconds);
            signal("STOP");
            return (counts().sum() - before) * 1e9 / (System.nanoTime() - begun);
        }

        // By a shell that stands by, as starting a program takes tens of milliseconds on a full machine.
        void signal(String signal) throws IOException {
            StringBuilder command = new StringBuilder("-" + signal);
            processes.forEach(process -> command.append(' ').append(process.pid()));
            shell.outputWriter().append(command).append('\n').flush();
            if (!"sent".equals(shell.inputReader().readLine())) {
                throw new IOException("a worker has ended");
            }
        }

        @Override
        public void close() {
            processes.forEach(Process::destroyForcibly);
            shell.destroyForcibly();
        }
    }
}
