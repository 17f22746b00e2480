package com.kelvane.media.bench;

import java.util.ArrayList;
import java.util.Arrays;
import java.util.Collections;
import java.util.LinkedHashMap;
import java.util.List;
import java.util.Map;
import java.util.concurrent.ExecutorService;
import java.util.concurrent.Executors;
import java.util.concurrent.Future;
import java.util.function.ToLongFunction;

/**
 * The same work done in several ways, in turns: A B C C B A A B C ..., a few milliseconds each within one pass over the
 * input, so that what else the machine does meets all of them alike.
 */
final class Contest {
    private static final long WARM_UP = 3_000_000_000L; // nanoseconds
    private static final long LEAST_TIME = 4_000_000_000L; // nanoseconds, in which short passes get more rounds
    private static final double SLICE = 60e6; // nanoseconds of the first way

    /** One way to do the work. A checked pass is not timed. */
    interface Pass {
        Spent run(boolean checked, Turns turns) throws Exception;

        default Spent run(boolean checked) throws Exception {
            return run(checked, new Turns(0));
        }
    }

    /** The median of some figures, the least and the most, and how far the middle half of them lay apart. */
    record Result(double median, double least, double most, double spread) {
        static Result of(double[] values) {
            double[] sorted = values.clone();
            Arrays.sort(sorted);
            int middle = sorted.length / 2;
            double median = sorted.length % 2 == 1 ? sorted[middle] : (sorted[middle - 1] + sorted[middle]) / 2;
            int quarter = sorted.length / 4;
            return new Result(median, sorted[0], sorted[sorted.length - 1], sorted[sorted.length - 1 - quarter] - sorted[quarter]);
        }
    }

    private final String name;
    private final int inputs;
    private final Map<String, Pass> ways = new LinkedHashMap<>();
    private final Map<String, Pass> others = new LinkedHashMap<>();
    private final Map<String, List<Double>> times = new LinkedHashMap<>();
    private long units;

    /** @param inputs how many units a pass works on */
    Contest(String name, int inputs) {
        this.name = name;
        this.inputs = inputs;
    }

    /** A way whose output is to be the same to the byte as that of the other ways. */
    Contest way(String way, Pass pass) {
        ways.put(way, pass);
        return this;
    }

    /** A way that does the work with other code, whose output has been compared otherwise. */
    Contest other(String way, Pass pass) {
        others.put(way, pass);
        return this;
    }

    Contest run(int rounds) throws Exception {
        return run(rounds, true, Spent::cpu);
    }

    /** @param bound whether all work on one processor */
    Contest run(int rounds, boolean bound, ToLongFunction<Spent> measure) throws Exception {
        Spent expected = null;
        for (Map.Entry<String, Pass> way : ways.entrySet()) {
            Spent spent = way.getValue().run(true);
            if (expected == null) {
                expected = spent;
                units = spent.units();
            }
            if (!spent.gaveTheSameAs(expected) || spent.units() == 0) {
                throw new IllegalStateException(name + ": " + way.getKey() + " gives " + spent + " where "
                        + ways.keySet().iterator().next() + " gives " + expected + "; unequal work is not compared");
            }
        }
        Map<String, Pass> all = new LinkedHashMap<>(ways);
        all.putAll(others);
        int slice = Math.max(1, (int) (inputs * SLICE / ways.values().iterator().next().run(false).wall()));
        Map<String, ExecutorService> threads = new LinkedHashMap<>();
        all.keySet().forEach(way -> threads.put(way, Executors.newSingleThreadExecutor()));
        try {
            if (bound) {
                for (ExecutorService thread : threads.values()) {
                    thread.submit(Turns::bindThisThread).get();
                }
            }
            long begun = System.nanoTime();
            while (System.nanoTime() - begun < WARM_UP) {
                round(all, threads, slice);
            }
            begun = System.nanoTime();
            for (int round = 0; round < rounds || System.nanoTime() - begun < LEAST_TIME; round++) {
                for (Map.Entry<String, Spent> each : round(all, threads, slice).entrySet()) {
                    times.computeIfAbsent(each.getKey(), ignored -> new ArrayList<>()).add((double) measure.applyAsLong(each.getValue()));
                }
            }
        } finally {
            threads.values().forEach(ExecutorService::shutdown);
        }
        return this;
    }

    private static Map<String, Spent> round(Map<String, Pass> all, Map<String, ExecutorService> threads, int slice) throws Exception {
        Map<String, Future<Spent>> running = new LinkedHashMap<>();
        List<Turns> order = new ArrayList<>();
        all.forEach((way, pass) -> {
            Turns turns = new Turns(slice);
            order.add(turns);
            running.put(way, threads.get(way).submit(() -> {
                try {
                    turns.awaitTurn();
                    return pass.run(false, turns);
                } finally {
                    turns.end();
                }
            }));
        });
        boolean more = true;
        while (more) {
            more = false;
            for (Turns turns : order) {
                more |= turns.take();
            }
            Collections.reverse(order);
        }
        Map<String, Spent> spent = new LinkedHashMap<>();
        for (Map.Entry<String, Future<Spent>> each : running.entrySet()) {
            spent.put(each.getKey(), each.getValue().get());
        }
        return spent;
    }

    /** {@return how many units each pass gave: access units, pictures, blocks of sound} */
    long units() {
        return units;
    }

    /** {@return nanoseconds of a way's passes} */
    Result result(String way) {
        return Result.of(times.get(way).stream().mapToDouble(Double::doubleValue).toArray());
    }

    /** {@return the rounds' ratios of one way to another} */
    Result ratio(String way, String to) {
        double[] ratios = new double[times.get(way).size()];
        Arrays.setAll(ratios, i -> times.get(way).get(i) / times.get(to).get(i));
        return Result.of(ratios);
    }
}
