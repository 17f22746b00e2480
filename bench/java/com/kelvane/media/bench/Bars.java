package com.kelvane.media.bench;

import java.util.Locale;
import java.util.Map;

/** The drawn columns of a table as horizontal bars, in the colours of the page. */
final class Bars {
    private static final int LABEL = 190;
    private static final int WIDTH = 520;
    private static final int BAR = 14;

    private Bars() {
    }

    static String draw(Table table) {
        String[] columns = table.drawn.split("\\|");
        double largest = 0;
        for (Map<String, Table.Figure> row : table.rows.values()) {
            for (String column : columns) {
                largest = Math.max(largest, row.containsKey(column) ? row.get(column).value() : 0);
            }
        }
        if (largest <= 0) {
            return "";
        }
        StringBuilder svg = new StringBuilder();
        int y = 0;
        for (int i = 0; i < columns.length; i++, y = 0) {
            svg.append(text(LABEL + 130 * i + 16, 11, "", columns[i])).append(bar(LABEL + 130 * i, 0, 12, i));
        }
        y = 24;
        for (Map.Entry<String, Map<String, Table.Figure>> row : table.rows.entrySet()) {
            svg.append(text(LABEL - 8, y + 11, " text-anchor='end'", row.getKey()));
            for (int i = 0; i < columns.length; i++) {
                Table.Figure figure = row.getValue().get(columns[i]);
                if (figure != null) {
                    double length = WIDTH * figure.value() / largest;
                    svg.append(bar(LABEL, y, length, i)).append(text(LABEL + length + 5, y + 11, "", figure.toString()));
                    y += BAR + 1;
                }
            }
            y += 8;
        }
        return "<svg viewBox='0 0 " + (LABEL + WIDTH + 70) + " " + y + "' role='img'>" + svg + "</svg>";
    }

    private static String bar(double x, double y, double width, int series) {
        return String.format(Locale.ROOT, "<rect class='s%d' x='%.1f' y='%.1f' width='%.1f' height='%d'/>", series, x, y, width, BAR);
    }

    private static String text(double x, double y, String attributes, String content) {
        return String.format(Locale.ROOT, "<text x='%.1f' y='%.1f'%s>%s</text>", x, y, attributes, Report.escape(content));
    }
}
