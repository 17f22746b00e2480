package com.kelvane.media.bench;

import java.util.ArrayList;
import java.util.Arrays;
import java.util.LinkedHashMap;
import java.util.List;
import java.util.Map;
import java.util.function.ToLongFunction;

/** The same work done in several ways, in turns: A B C A B C ... The first way is what the others are compared with. */
final class Contest {
    private static final int WARM_UP_ROUNDS = 1;

    /** One way to do the work. A checked pass is not timed. */
    interface Pass {
        Spent run(boolean checked) throws Exception;
    }

    /** Medians of a way's passes, in nanoseconds, and how far they lay apart. */
    record Result(double median, double least, double most) {
        double spread() {
            return (most - least) / median;
        }
    }

    private final String name;
    private final Map<String, Pass> ways = new LinkedHashMap<>();
    private final Map<String, Pass> others = new LinkedHashMap<>();
    private final Map<String, long[]> times = new LinkedHashMap<>();
    private long units;

    Contest(String name) {
        this.name = name;
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
        return run(rounds, Spent::cpu);
    }

    Contest run(int rounds, ToLongFunction<Spent> measure) throws Exception {
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
        for (int round = -WARM_UP_ROUNDS; round < rounds; round++) {
            for (Map.Entry<String, Pass> way : all.entrySet()) {
                long time = measure.applyAsLong(way.getValue().run(false));
                if (round >= 0) {
                    times.computeIfAbsent(way.getKey(), ignored -> new long[rounds])[round] = time;
                }
            }
        }
        return this;
    }

    /** {@return how many units each pass gave: access units, pictures, blocks of sound} */
    long units() {
        return units;
    }

    Result result(String way) {
        double[] sorted = Arrays.stream(times.get(way)).asDoubleStream().sorted().toArray();
        return new Result(median(sorted), sorted[0], sorted[sorted.length - 1]);
    }

    /** {@return the median of the rounds' ratios of one way to another} */
    double ratio(String way, String to) {
        List<Double> ratios = new ArrayList<>();
        for (int i = 0; i < times.get(way).length; i++) {
            ratios.add((double) times.get(way)[i] / times.get(to)[i]);
        }
        return median(ratios.stream().mapToDouble(Double::doubleValue).toArray());
    }

    static double median(double[] values) {
        double[] sorted = values.clone();
        Arrays.sort(sorted);
        int middle = sorted.length / 2;
        return sorted.length % 2 == 1 ? sorted[middle] : (sorted[middle - 1] + sorted[middle]) / 2;
    }
}
