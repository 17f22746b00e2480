package com.kelvane.media.tool.output;

import com.kelvane.media.Transcoder.RenditionStatistics;
import com.kelvane.media.tool.packager.MediaPlaylist;
import com.kelvane.media.tool.packager.Names;
import com.kelvane.media.tool.shell.Text;
import java.io.FileNotFoundException;
import java.io.IOException;
import java.io.InputStream;
import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.HashMap;
import java.util.List;
import java.util.Map;
import java.util.regex.Matcher;
import java.util.regex.Pattern;
import java.util.stream.Collectors;
import java.util.stream.Stream;

/** A page to look at a run: a player, the table, plots of each picture, and the sheet of pictures. */
public final class Page {
    public static final String FILE = "index.html";
    private static final String TEMPLATE = "page.html";
    private static final String LIVE = "live.js";
    private static final Pattern PLACE = Pattern.compile("\\{\\{(\\w+)}}");

    private final RunReport report;

    public Page(RunReport report) {
        this.report = report;
    }

    /** @param sheet name of the sheet of pictures, which is shown if it is among the report's files */
    public void write(Path file, String sheet) throws IOException {
        Map<String, String> contents = new HashMap<>(Map.of("title", escaped(report.track().path().getFileName().toString()),
                "facts", facts(), "player", player(), "table", table(), "plots", plots(),
                "footer", "Every figure: <a href=\"" + RunReport.FILE + "\">" + RunReport.FILE + "</a>", "live", ""));
        contents.put("sheet", !report.files().contains(sheet) ? "" : section("Four moments",
                "<img src=\"" + sheet + "\" alt=\"The source and every rendition at four moments\">"));
        Files.writeString(file, filled(contents));
    }

    /**
     * The page of a live ladder, which asks its server for the figures.
     *
     * @param title what is transcoded
     * @param figures the last ones when it has ended, otherwise null
     */
    public static String live(String title, byte[] figures) throws IOException {
        return filled(new HashMap<>(Map.of("title", escaped(title), "facts", "<p id=\"state\">&nbsp;</p>",
                "player", player("<option value=\"" + Names.MASTER + "\" data-ladder data-live>the ladder, as the connection"
                        + " allows</option>"),
                "table", "<table id=\"renditions\"></table>", "plots", plot("The last minutes", "<div id=\"history\"></div>"),
                "sheet", "", "footer", "The ladder, for other players: <a href=\"" + Names.MASTER + "\">" + Names.MASTER + "</a>",
                "live", resource(LIVE).replace("{{figures}}", figures == null ? "null"
                        : new String(figures, StandardCharsets.UTF_8).replace("<", "\\u003c")))));
    }

    private static String filled(Map<String, String> contents) throws IOException {
        contents.putAll(Map.of("left", Integer.toString(Plot.LEFT), "right", Integer.toString(Plot.RIGHT),
                "width", Integer.toString(Plot.WIDTH)));
        return PLACE.matcher(resource(TEMPLATE)).replaceAll(place -> Matcher.quoteReplacement(contents.get(place.group(1))));
    }

    private static String resource(String name) throws IOException {
        try (InputStream stream = Page.class.getResourceAsStream(name)) {
            if (stream == null) {
                throw new FileNotFoundException(name);
            }
            return new String(stream.readAllBytes(), StandardCharsets.UTF_8);
        }
    }

    /** Text as HTML and in attributes: the names of files are strangers'. */
    static String escaped(String text) {
        return text.replace("&", "&amp;").replace("<", "&lt;").replace(">", "&gt;").replace("\"", "&quot;")
                .replace("'", "&#39;");
    }

    private static String section(String heading, String contents) {
        return "<section><h2>" + heading + "</h2>" + contents + "</section>\n";
    }

    private static String plot(String heading, String contents) {
        return section(heading, "<div class=\"wide\" tabindex=\"0\" role=\"region\" aria-label=\"" + heading + "\">" + contents
                + "</div>");
    }

    private String facts() {
        List<String> facts = new ArrayList<>();
        facts.add(Text.format("%dx%d, %.2f pictures a second%s", report.track().width(), report.track().height(),
                report.track().frameRate(), report.audio() == null ? ", no sound" : ", with " + report.audio().codec()
                + (report.audio().codec().equals("aac") ? ", copied" : ", encoded as AAC")));
        facts.add(Text.format("%d pictures, %.1f s, in %.2f s: %.1f times real time", report.shown(), report.seconds(),
                report.transcodingSeconds(), report.seconds() / report.transcodingSeconds()));
        if (report.damage() != null) {
            facts.add("damaged source: " + report.damage());
        }
        return facts.stream().map(fact -> "<p>" + escaped(fact) + "</p>\n").collect(Collectors.joining());
    }

    private String player() {
        StringBuilder choices = new StringBuilder();
        if (!report.playlists().isEmpty()) {
            choices.append(Text.format("<option value=\"%s\" data-ladder>the ladder, as the connection allows</option>",
                    Names.MASTER));
        }
        for (RenditionOutput output : report.outputs()) {
            if (report.files().contains(output.containerName())) {
                choices.append(Text.format("<option value=\"%s\">%s</option>", output.containerName(), output.size()));
            }
        }
        return choices.length() == 0 ? "" : player(choices.toString());
    }

    private static String player(String choices) {
        return "<section><video controls playsinline></video><div class=\"choice\"><label>Plays "
                + "<select>" + choices + "</select></label><span id=\"note\"></span></div></section>\n";
    }

    private String table() {
        boolean hls = !report.playlists().isEmpty();
        StringBuilder table = new StringBuilder("<table><thead>");
        row(table, "th", Stream.concat(Stream.of("rendition", "pictures", "skipped", "failed", "kbit/s", "target", "PSNR-Y",
                "ms/picture"), hls ? Stream.of("segments", "peak kbit/s") : Stream.empty()).toList());
        table.append("</thead><tbody>");
        for (int i = 0; i < report.outputs().size(); i++) {
            RenditionStatistics done = report.statistics().renditions().get(i);
            List<String> cells = new ArrayList<>(List.of(
                    "<span class=\"key " + Plot.colour(i) + "\"></span>" + report.outputs().get(i).size(),
                    Long.toString(done.pictures()), Long.toString(done.skipped()), Long.toString(done.failed()),
                    Text.format("%.1f", Summary.kilobitsPerSecond(done.bytes(), report.seconds())),
                    Summary.target(done.rendition()),
                    report.comparison() == null ? "-" : Summary.decibels(report.comparison().psnr(i)), Text.format("%.2f",
                            Summary.milliseconds(done))));
            if (hls) {
                cells.addAll(segments(report.playlists().get(i)));
            }
            row(table, "td", cells);
        }
        if (report.playlists().size() > report.outputs().size()) {
            MediaPlaylist sound = report.playlists().get(report.outputs().size());
            List<String> cells = new ArrayList<>(List.of("sound", "", "", "", Text.format("%.1f", sound.averageBandwidth() / 1000.0),
                    "", "", ""));
            cells.addAll(segments(sound));
            row(table, "td", cells);
        }
        return table.append("</tbody></table>").toString();
    }

    private static List<String> segments(MediaPlaylist playlist) {
        return List.of(Integer.toString(playlist.entries().size()), Text.format("%.1f", playlist.peakBandwidth() / 1000.0));
    }

    private static void row(StringBuilder table, String kind, List<String> cells) {
        table.append("<tr>");
        cells.forEach(cell -> table.append('<').append(kind).append('>').append(cell));
        table.append("</tr>");
    }

    private String plots() {
        List<PictureFigures> figures = report.figures();
        String plots = plot("Kilobits per picture", new Plot(figures.stream()
                .map(pictures -> new Plot.Line(pictures, i -> pictures.bits(i) / 1000.0)).toList(), "Kilobits per picture",
                true).toString());
        String psnr = figures.stream().allMatch(PictureFigures::hasPsnr) ? new Plot(figures.stream()
                .map(pictures -> new Plot.Line(pictures, pictures::psnr)).toList(), "PSNR-Y per picture", false).toString() : "";
        return psnr.isEmpty() ? plots : plots + plot("PSNR-Y per picture, dB", psnr);
    }
}
