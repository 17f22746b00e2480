package com.kelvane.media.bench;

import java.util.ArrayList;
import java.util.LinkedHashMap;
import java.util.List;
import java.util.Locale;
import java.util.Map;

/** Figures of one kind: rows with named columns, of which one is drawn; and how far they are from what was aimed at. */
final class Table {
    /**
     * A figure for people.
     *
     * @param decimals those that matter
     * @param spread how far the middle half of the rounds lay apart, in percent of the figure; below 0 when it was not told
     */
    record Figure(double value, int decimals, double spread) {
        @Override
        public String toString() {
            return String.format(Locale.ROOT, "%." + decimals + "f" + (spread < 0 ? "" : " (%.1f)"), value, spread);
        }
    }

    /** What a column of ratios should stay under, or, for throughput, over. */
    record Goal(String column, double limit, boolean atMost) {
        boolean isMissedBy(double value) {
            return atMost ? value > limit : value < limit;
        }

        @Override
        public String toString() {
            return column + (atMost ? " at most " : " at least ") + limit;
        }
    }

    final String title;
    final String note;
    final String drawn;
    final List<Goal> goals;
    final Map<String, Map<String, Figure>> rows = new LinkedHashMap<>();

    /** @param drawn the columns to draw as bars, separated by {@code |} */
    Table(String title, String note, String drawn, Goal... goals) {
        this.title = title;
        this.note = note;
        this.drawn = drawn;
        this.goals = List.of(goals);
    }

    Table put(String row, String column, double value, int decimals) {
        return put(row, column, new Figure(value, decimals, -1));
    }

    Table put(String row, String column, Contest.Result ratio) {
        return put(row, column, new Figure(ratio.median(), 4, 100 * ratio.spread() / ratio.median()));
    }

    private Table put(String row, String column, Figure figure) {
        rows.computeIfAbsent(row, ignored -> new LinkedHashMap<>()).put(column, figure);
        return this;
    }

    /** Tells of a finished row on standard error. */
    void tell(String row) {
        System.err.println(row + ": " + rows.get(row));
    }

    List<String> columns() {
        List<String> columns = new ArrayList<>();
        rows.values().forEach(row -> row.keySet().stream().filter(name -> !columns.contains(name)).forEach(columns::add));
        return columns;
    }

    boolean misses(String column, double value) {
        return goals.stream().anyMatch(goal -> goal.column.equals(column) && goal.isMissedBy(value));
    }

    /** {@return the goals, each with how many of its rows miss it} */
    List<String> verdicts() {
        return goals.stream().map(goal -> {
            List<Double> values = rows.values().stream().filter(row -> row.containsKey(goal.column))
                    .map(row -> row.get(goal.column).value).toList();
            long missed = values.stream().filter(goal::isMissedBy).count();
            double mean = values.stream().mapToDouble(Double::doubleValue).average().orElse(0);
            return goal + ": " + (missed == 0 ? "reached" : "missed by " + missed + " of " + values.size())
                    + (values.size() > 1 ? String.format(Locale.ROOT, ", %.4f on average", mean) : "");
        }).toList();
    }
}
