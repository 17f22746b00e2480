package com.kelvane.media.tool.output;

import com.kelvane.media.tool.shell.Text;
import java.util.List;
import java.util.function.IntToDoubleFunction;

/** Draws a figure of each picture over time, a line for each rendition, as SVG. */
final class Plot {
    static final int WIDTH = 1000;
    static final int LEFT = 64;
    static final int RIGHT = 990;
    private static final int HEIGHT = 260;
    private static final int TOP = 12;
    private static final int BOTTOM = 230;
    private static final int MOST_POINTS = 460; // more would lie on one another
    private static final int[] STEPS = {1, 2, 5};
    private static final int COLOURS = 6;

    private final boolean logarithmic;
    private final StringBuilder svg = new StringBuilder();
    private double lowest = Double.POSITIVE_INFINITY;
    private double highest = Double.NEGATIVE_INFINITY;
    private double begin = Double.POSITIVE_INFINITY;
    private double end = Double.NEGATIVE_INFINITY;

    /** One line. */
    record Line(PictureFigures pictures, IntToDoubleFunction values) {
    }

    /** @param logarithmic whether the scale is; it shows values above 0 alone then */
    Plot(List<Line> lines, String name, boolean logarithmic) {
        this.logarithmic = logarithmic;
        for (Line line : lines) {
            for (int i = 0; i < line.pictures.count(); i++) {
                double value = line.values.applyAsDouble(i);
                if (Double.isFinite(value)) {
                    lowest = Math.min(lowest, value);
                    highest = Math.max(highest, value);
                }
                begin = Math.min(begin, line.pictures.time(i) / 1000.0);
                end = Math.max(end, line.pictures.time(i) / 1000.0);
            }
        }
        if (!(highest >= lowest)) { // nothing but pictures without any difference
            return;
        }
        double room = logarithmic ? 0 : Math.max(0.5, 0.08 * (highest - lowest));
        lowest = logarithmic ? lowest / 1.2 : lowest - room;
        highest = logarithmic ? highest * 1.2 : highest + room;
        add("<svg viewBox=\"0 0 %d %d\" role=\"img\" aria-label=\"%s\" data-begin=\"%.3f\" data-seconds=\"%.3f\">", WIDTH, HEIGHT,
                name, begin, Math.max(0.001, end - begin));
        drawScales();
        for (int i = 0; i < lines.size(); i++) {
            draw(lines.get(i), colour(i));
        }
        add("<line class=\"head\" x1=\"-9\" x2=\"-9\" y1=\"%d\" y2=\"%d\"/></svg>", TOP, BOTTOM);
    }

    /** The class of a rendition's colour. */
    static String colour(int rendition) {
        return "s" + rendition % COLOURS;
    }

    /** The SVG element; empty when there is nothing to draw. */
    @Override
    public String toString() {
        return svg.toString();
    }

    private void drawScales() {
        double span = highest - lowest;
        double unit = Math.pow(10, Math.floor(Math.log10(logarithmic ? lowest : span / 5)));
        if (logarithmic) {
            for (; unit <= highest; unit *= 10) {
                for (int step : highest / lowest > 100 ? new int[] {1} : STEPS) {
                    drawLevel(step * unit);
                }
            }
        } else {
            for (int step : STEPS) {
                if (span / (step * unit) <= 6 || step == STEPS[STEPS.length - 1]) {
                    for (double value = Math.ceil(lowest / (step * unit)) * step * unit; value <= highest; value += step * unit) {
                        drawLevel(value);
                    }
                    break;
                }
            }
        }
        double seconds = Math.max(0.001, end - begin);
        double tick = Math.pow(10, Math.floor(Math.log10(seconds / 5)));
        tick *= seconds / tick > 25 ? 5 : seconds / tick > 10 ? 2 : 1;
        for (double time = Math.ceil(begin / tick) * tick; time <= end; time += tick) {
            add("<text x=\"%.1f\" y=\"%d\" text-anchor=\"middle\">%s s</text>", x(time), BOTTOM + 20, label(time));
        }
    }

    private void drawLevel(double value) {
        if (value >= lowest && value <= highest) {
            add("<line class=\"grid\" x1=\"%d\" x2=\"%d\" y1=\"%.1f\" y2=\"%3$.1f\"/>", LEFT, RIGHT, y(value));
            add("<text x=\"%d\" y=\"%.1f\" text-anchor=\"end\">%s</text>", LEFT - 8, y(value) + 4, label(value));
        }
    }

    /** Draws single pictures, or the mean of some with the range that they have. */
    private void draw(Line line, String colour) {
        int count = line.pictures.count();
        int each = (count + MOST_POINTS - 1) / MOST_POINTS;
        StringBuilder means = new StringBuilder();
        StringBuilder above = new StringBuilder();
        StringBuilder below = new StringBuilder();
        for (int first = 0; first < count; first += Math.max(1, each)) {
            double sum = 0;
            double least = highest;
            double most = lowest;
            int next = Math.min(count, first + each);
            for (int i = first; i < next; i++) {
                double value = Math.min(highest, Math.max(lowest, line.values.applyAsDouble(i)));
                sum += value;
                least = Math.min(least, value);
                most = Math.max(most, value);
            }
            double x = x((line.pictures.time(first) + line.pictures.time(next - 1)) / 2000.0);
            means.append(Text.format("%.1f,%.1f ", x, y(sum / (next - first))));
            above.append(Text.format("%.1f,%.1f ", x, y(most)));
            below.insert(0, Text.format("%.1f,%.1f ", x, y(least)));
        }
        if (each > 1) {
            add("<polygon class=\"%s\" points=\"%s%s\"/>", colour, above, below);
        }
        add("<polyline class=\"%s\" style=\"fill:none\" points=\"%s\"/>", colour, means);
    }

    private double x(double time) {
        return LEFT + (RIGHT - LEFT) * (time - begin) / Math.max(0.001, end - begin);
    }

    private double y(double value) {
        double part = logarithmic ? Math.log(value / lowest) / Math.log(highest / lowest) : (value - lowest) / (highest - lowest);
        return BOTTOM - (BOTTOM - TOP) * part;
    }

    private static String label(double value) {
        return Text.format(Math.abs(value - Math.rint(value)) < 1e-6 ? "%.0f" : value < 0.1 ? "%.2f" : "%.1f", value);
    }

    private void add(String format, Object... values) {
        svg.append(Text.format(format, values));
    }
}
