package com.kelvane.media.bench;

import com.fasterxml.jackson.core.JsonFactory;
import com.fasterxml.jackson.core.JsonGenerator;
import java.io.IOException;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.List;
import java.util.Map;

/** Writes the tables for people, as text and as a page, and for programs. */
final class Report {
    private final List<String> about;
    private final List<Table> tables;

    Report(List<String> about, List<Table> tables) {
        this.about = about;
        this.tables = tables;
    }

    void write(Path folder) throws IOException {
        Files.writeString(folder.resolve("results.md"), text());
        Files.writeString(folder.resolve("index.html"), page());
        writeJson(folder.resolve("results.json"));
    }

    /** The tables as Markdown, which people read as it is. */
    String text() {
        StringBuilder text = new StringBuilder();
        about.forEach(line -> text.append("- ").append(line).append('\n'));
        for (Table table : tables) {
            List<String> columns = table.columns();
            text.append("\n### ").append(table.title).append("\n\n").append(table.note).append("\n\n| |");
            columns.forEach(column -> text.append(' ').append(column).append(" |"));
            text.append("\n| --- |").append(" ---: |".repeat(columns.size())).append('\n');
            table.rows.forEach((name, row) -> {
                text.append("| ").append(name).append(" |");
                for (String column : columns) {
                    Table.Figure figure = row.get(column);
                    boolean missed = figure != null && table.misses(column, figure.value());
                    text.append(' ').append(figure == null ? "" : missed ? "**" + figure + "**" : figure).append(" |");
                }
                text.append('\n');
            });
            if (!table.goals.isEmpty()) {
                text.append("\nGoals: ").append(String.join("; ", table.verdicts())).append(".\n");
            }
        }
        return text.toString();
    }

    private void writeJson(Path file) throws IOException {
        try (JsonGenerator json = new JsonFactory().createGenerator(file.toFile(), com.fasterxml.jackson.core.JsonEncoding.UTF8)) {
            json.useDefaultPrettyPrinter();
            json.writeStartObject();
            json.writeArrayFieldStart("about");
            for (String line : about) {
                json.writeString(line);
            }
            json.writeEndArray();
            json.writeArrayFieldStart("tables");
            for (Table table : tables) {
                json.writeStartObject();
                json.writeStringField("title", table.title);
                json.writeArrayFieldStart("goals");
                for (String verdict : table.verdicts()) {
                    json.writeString(verdict);
                }
                json.writeEndArray();
                json.writeObjectFieldStart("rows");
                for (Map.Entry<String, Map<String, Table.Figure>> row : table.rows.entrySet()) {
                    json.writeObjectFieldStart(row.getKey());
                    for (Map.Entry<String, Table.Figure> figure : row.getValue().entrySet()) {
                        json.writeNumberField(figure.getKey(), figure.getValue().value());
                        if (figure.getValue().spread() >= 0) {
                            json.writeNumberField(figure.getKey() + ", spread in %", figure.getValue().spread());
                        }
                    }
                    json.writeEndObject();
                }
                json.writeEndObject();
                json.writeEndObject();
            }
            json.writeEndArray();
            json.writeEndObject();
        }
    }

    private String page() throws IOException {
        StringBuilder body = new StringBuilder("<ul>");
        about.forEach(line -> body.append("<li>").append(escape(line)).append("</li>"));
        body.append("</ul>");
        for (Table table : tables) {
            List<String> columns = table.columns();
            body.append("<h2>").append(escape(table.title)).append("</h2><p>").append(escape(table.note)).append("</p>")
                    .append(Bars.draw(table)).append("<table><tr><th></th>");
            columns.forEach(column -> body.append("<th>").append(escape(column)).append("</th>"));
            body.append("</tr>");
            table.rows.forEach((name, row) -> {
                body.append("<tr><th>").append(escape(name)).append("</th>");
                for (String column : columns) {
                    Table.Figure figure = row.get(column);
                    boolean missed = figure != null && table.misses(column, figure.value());
                    body.append(missed ? "<td class=missed>" : "<td>").append(figure == null ? "" : figure).append("</td>");
                }
                body.append("</tr>");
            });
            body.append("</table>");
            table.verdicts().forEach(verdict -> body.append("<p class=goal>").append(escape(verdict)).append("</p>"));
        }
        try (var template = Report.class.getResourceAsStream("page.html")) {
            return new String(template.readAllBytes(), java.nio.charset.StandardCharsets.UTF_8).replace("{body}", body);
        }
    }

    static String escape(String text) {
        return text.replace("&", "&amp;").replace("<", "&lt;").replace(">", "&gt;");
    }
}
