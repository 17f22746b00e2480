package com.kelvane.media.bench;

import java.util.ArrayList;
import java.util.Arrays;
import java.util.LinkedHashMap;
import java.util.List;
import java.util.Map;
import java.util.concurrent.ExecutorService;
import java.util.concurrent.Executors;
import java.util.concurrent.Future;
import java.util.function.ToLongFunction;

/**
 * The same work done in several ways, in turns: A B C A B C ..., a few milliseconds each, for some laps over the input, so
 * that what else the machine does meets all of them alike. Engines are opened once for all laps, of which the first ones,
 * with the opening, do not count. The order never turns round: who follows itself finds the processor's caches warm.
 */
final class Contest {
    private static final long WARM_UP = 3_000_000_000L; // nanoseconds, of all ways together
    private static final long LEAST_TIME = 4_000_000_000L; // nanoseconds, in which short laps get more of them
    private static final double SLICE = 60e6; // nanoseconds of the first way

    /** One way to do the work, in so many laps. A checked pass is not timed. */
    interface Pass {
        Spent run(boolean checked, Turns turns) throws Exception;

        default Spent run(boolean checked) throws Exception {
            return run(checked, Turns.none());
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

    Contest run(int laps) throws Exception {
        return run(laps, true, Turns.Lap::cpu);
    }

    /**
     * @param laps at least, that are measured
     * @param bound whether all work on one processor
     */
    Contest run(int laps, boolean bound, ToLongFunction<Turns.Lap> measure) throws Exception {
        Map<String, Spent> checked = new LinkedHashMap<>();
        for (Map.Entry<String, Pass> way : ways.entrySet()) {
            checked.put(way.getKey(), way.getValue().run(true));
        }
        compare(checked);
        units = checked.values().iterator().next().units();
        long lapTime = ways.values().iterator().next().run(false).wall();
        int slice = Math.max(1, (int) (inputs * SLICE / lapTime));
        long allTime = lapTime * (ways.size() + others.size());
        int warm = (int) Math.max(1, WARM_UP / allTime);
        int measured = (int) Math.max(laps, LEAST_TIME / allTime);
        inTurns(slice, warm + measured, bound).forEach((way, done) -> {
            int from = others.containsKey(way) ? 0 : warm;
            times.put(way, done.subList(from, done.size()).stream().map(lap -> (double) measure.applyAsLong(lap)).toList());
        });
        return this;
    }

    private void compare(Map<String, Spent> spent) {
        Spent expected = spent.values().iterator().next();
        spent.forEach((way, each) -> {
            if (!each.gaveTheSameAs(expected) || each.units() == 0) {
                throw new IllegalStateException(name + ": " + way + " gives " + each + " where "
                        + ways.keySet().iterator().next() + " gives " + expected + "; unequal work is not compared");
            }
        });
    }

    private Map<String, List<Turns.Lap>> inTurns(int slice, int laps, boolean bound) throws Exception {
        Map<String, Pass> all = new LinkedHashMap<>(ways);
        all.putAll(others);
        Map<String, Turns> order = new LinkedHashMap<>();
        Map<String, Future<Spent>> running = new LinkedHashMap<>();
        ExecutorService threads = Executors.newCachedThreadPool();
        try {
            all.forEach((way, pass) -> {
                Turns turns = new Turns(slice, laps);
                order.put(way, turns);
                running.put(way, threads.submit(() -> {
                    try {
                        if (bound) {
                            Turns.bindThisThread();
                        }
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
                for (Turns turns : order.values()) {
                    more |= turns.take();
                }
            }
            Map<String, Spent> gave = new LinkedHashMap<>();
            for (Map.Entry<String, Future<Spent>> each : running.entrySet()) {
                Spent spent = each.getValue().get();
                if (ways.containsKey(each.getKey())) {
                    gave.put(each.getKey(), spent);
                }
            }
            compare(gave);
        } finally {
            threads.shutdown();
        }
        Map<String, List<Turns.Lap>> done = new LinkedHashMap<>();
        order.forEach((way, turns) -> done.put(way, turns.done()));
        return done;
    }

    /** Makes the mean of two ways, which do the same work, one to compare with. */
    Contest mean(String way, String other, String mean) {
        List<Double> means = new ArrayList<>();
        for (int lap = 0; lap < times.get(way).size(); lap++) {
            means.add((times.get(way).get(lap) + times.get(other).get(lap)) / 2);
        }
        times.put(mean, means);
        return this;
    }

    /** {@return how many units each pass gave: access units, pictures, blocks of sound} */
    long units() {
        return units;
    }

    /** {@return the ratio of all laps of one way to all of another, which may count them together} */
    double ratioOfAll(String way, String to) {
        return times.get(way).stream().mapToDouble(lap -> lap).average().orElseThrow()
                / times.get(to).stream().mapToDouble(lap -> lap).average().orElseThrow();
    }

    /** {@return nanoseconds of a way's laps} */
    Result result(String way) {
        return Result.of(times.get(way).stream().mapToDouble(Double::doubleValue).toArray());
    }

    /** {@return the laps' ratios of one way to another} */
    Result ratio(String way, String to) {
        double[] ratios = new double[times.get(way).size()];
        Arrays.setAll(ratios, i -> times.get(way).get(i) / times.get(to).get(i));
        return Result.of(ratios);
    }
}
