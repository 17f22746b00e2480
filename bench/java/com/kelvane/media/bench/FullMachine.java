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
import java.util.function.IntFunction;
import java.util.stream.LongStream;
import java.util.stream.Stream;

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
        double[][] figures = new double[launches][];
        for (int launch = 0; launch < launches; launch++) {
            figures[launch] = launch(count, folder, ladder, source, environment);
        }
        IntFunction<Contest.Result> figure = i -> Contest.Result.of(Stream.of(figures).mapToDouble(of -> of[i]).toArray());
        table.put(row, "floor, pictures/s", figure.apply(0).median(), 1).put(row, "API, pictures/s", figure.apply(1).median(), 1)
                .put(row, "API to floor", figure.apply(2)).put(row, "API, MB each", figure.apply(3).median(), 1)
                .put(row, "floor process, MB", figure.apply(4).median(), 1)
                .put(row, "of it its own, MB", figure.apply(5).median(), 1).tell(row);
    }

    // In the order of the columns.
    private static double[] launch(int count, Path folder, Ladder ladder, Packets source, Map<String, String> environment)
            throws Exception {
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
            while (ours.counts().min().orElseThrow() != READY) {
                Thread.sleep(20);
            }
            double empty = Floor.statusBytes(machine.pid(), "VmRSS");
            machine.getOutputStream().write('\n');
            machine.getOutputStream().flush();
            warmUp(ours);
            double bareRate = 0;
            double rate = 0;
            for (int turn = 0; turn < TURNS; turn++) {
                bareRate += bare.rate(SLICE + SLICE_OF_EACH * count) / TURNS;
                rate += ours.rate(SLICE + SLICE_OF_EACH * count) / TURNS;
            }
            double floorMemory = 0;
            double floorPrivate = 0;
            for (Process floor : bare.processes) {
                floorMemory += Floor.statusBytes(floor.pid(), "VmHWM") / MEGABYTE / count;
                floorPrivate += Floor.statusBytes(floor.pid(), "RssAnon") / MEGABYTE / count;
            }
            return new double[] {bareRate, rate, rate / bareRate,
                (Floor.statusBytes(machine.pid(), "VmHWM") - empty) / MEGABYTE / count, floorMemory, floorPrivate};
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
        while (side.counts().min().orElseThrow() < PICTURES_TO_WARM_UP) {
            Thread.sleep(20);
        }
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

        LongStream counts() {
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
