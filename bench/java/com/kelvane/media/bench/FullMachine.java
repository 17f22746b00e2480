package com.kelvane.media.bench;

import java.util.ArrayList;
import java.util.List;
import java.util.Map;
import java.util.concurrent.CyclicBarrier;
import java.util.concurrent.ExecutorService;
import java.util.concurrent.Executors;
import java.util.concurrent.Future;

/**
 * So many transcoders in this virtual machine, each on a thread of its own, in turns with as many processes of the floor:
 * pictures a second of all together, and what each takes of memory.
 */
final class FullMachine {
    private static final double MEGABYTE = 1e6;

    private FullMachine() {
    }

    static void measure(Table table, int count, Ladder ladder, Packets source, int rounds) throws Exception {
        Contest.Pass pass = ladder.api(source.list(), null);
        ExecutorService threads = Executors.newFixedThreadPool(count);
        List<Floor> floors = new ArrayList<>();
        try {
            for (int i = 0; i < count; i++) {
                floors.add(new Floor(Map.of()));
            }
            double[] ours = new double[rounds];
            double[] bare = new double[rounds];
            double[] ratios = new double[rounds];
            long resident = Floor.statusBytes(ProcessHandle.current().pid(), "VmRSS");
            long peak = resident;
            for (int round = -1; round < rounds; round++) { // one to warm up
                ResidentPeak watch = new ResidentPeak();
                double api = together(count, threads, pass);
                peak = Math.max(peak, watch.end());
                double floor = together(floors, ladder, source);
                if (round >= 0) {
                    double pictures = (double) count * source.list().size();
                    ours[round] = pictures / api;
                    bare[round] = pictures / floor;
                    ratios[round] = floor / api;
                }
            }
            double floorMemory = 0;
            for (Floor floor : floors) {
                floorMemory += floor.mostResident() / MEGABYTE / count;
            }
            String row = count + (count == 1 ? " transcoder" : " transcoders");
            table.put(row, "floor, pictures/s", Contest.median(bare), 1).put(row, "API, pictures/s", Contest.median(ours), 1)
                    .put(row, "API to floor", Contest.median(ratios), 3)
                    .put(row, "least", java.util.Arrays.stream(ratios).min().orElseThrow(), 3)
                    .put(row, "API, MB each", (peak - resident) / MEGABYTE / count, 1)
                    .put(row, "floor process, MB", floorMemory, 1);
        } finally {
            threads.shutdownNow();
            for (Floor floor : floors) {
                floor.close();
            }
        }
    }

    /** {@return the seconds until the last is done} */
    private static double together(int count, ExecutorService threads, Contest.Pass pass) throws Exception {
        CyclicBarrier start = new CyclicBarrier(count);
        List<Future<Spent>> running = new ArrayList<>();
        long begun = System.nanoTime();
        for (int i = 0; i < count; i++) {
            running.add(threads.submit(() -> {
                start.await();
                return pass.run(false);
            }));
        }
        for (Future<Spent> each : running) {
            each.get();
        }
        return (System.nanoTime() - begun) / 1e9;
    }

    private static double together(List<Floor> floors, Ladder ladder, Packets source) throws Exception {
        long begun = System.nanoTime();
        for (Floor floor : floors) {
            floor.begin("ladder time " + source.file() + " " + ladder.forFloor());
        }
        for (Floor floor : floors) {
            floor.answer();
        }
        return (System.nanoTime() - begun) / 1e9;
    }

    /** The most memory that this process has resident, looked at twenty times a second. */
    private static final class ResidentPeak extends Thread {
        private volatile boolean ended;
        private long peak;

        ResidentPeak() {
            setDaemon(true);
            start();
        }

        @Override
        public void run() {
            try {
                while (!ended) {
                    peak = Math.max(peak, Floor.statusBytes(ProcessHandle.current().pid(), "VmRSS"));
                    Thread.sleep(50);
                }
            } catch (java.io.IOException | InterruptedException e) {
                throw new IllegalStateException(e);
            }
        }

        long end() throws InterruptedException {
            ended = true;
            join();
            return peak;
        }
    }
}
