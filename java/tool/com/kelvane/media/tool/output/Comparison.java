package com.kelvane.media.tool.output;

import com.kelvane.media.AccessUnit;
import com.kelvane.media.ContainerWriter;
import com.kelvane.media.MediaException;
import com.kelvane.media.MediaTrack;
import com.kelvane.media.tool.input.PictureMeaning;
import com.kelvane.media.tool.input.VideoSource;
import com.kelvane.media.tool.input.VideoTrack;
import com.kelvane.media.tool.packager.DecodingTimes;
import com.kelvane.media.tool.shell.MediaProgram;
import com.kelvane.media.tool.shell.Text;
import java.awt.image.BufferedImage;
import java.io.IOException;
import java.io.OutputStream;
import java.io.UncheckedIOException;
import java.nio.channels.Channels;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.Arrays;
import java.util.List;
import java.util.regex.Matcher;
import java.util.regex.Pattern;
import java.util.stream.Collectors;
import java.util.stream.Stream;
import javax.imageio.ImageIO;

/**
 * Compares the renditions with the source, pictures of the same time with one another: PSNR of the luma, and small
 * pictures of a few moments. One run of FFmpeg decodes everything once.
 */
public final class Comparison {
    private static final int CELL_WIDTH = 320;
    private static final int TICKS = 90_000; // of a second
    private static final int SHIFT = 1_000_000; // ms; there are pictures before 0, where a cut needs them
    private static final String SCRIPT = "comparison.txt";
    private static final String PICTURES = "comparison.png";
    private static final Pattern PSNR = Pattern.compile("\\[psnr@(\\d+) .*PSNR y:(\\S+).*");

    private static final Pattern PICTURE_PSNR = Pattern.compile(".* psnr_y:(\\S+) .*");

    private final double[] psnr;
    private final int[] cellHeights;
    private BufferedImage grid;
    private int damagedPictures;

    /**
     * @param source the access units once more
     * @param outputs finished renditions
     * @param figures take the PSNR of each picture
     * @param moments times of the pictures to show, in milliseconds, ascending
     */
    public Comparison(VideoTrack track, VideoSource source, List<RenditionOutput> outputs, Products products,
                      List<PictureFigures> figures, List<Long> moments, Workspace workspace) throws IOException {
        psnr = new double[outputs.size()];
        Arrays.fill(psnr, Double.NaN);
        cellHeights = new int[outputs.size() + 1];
        cellHeights[0] = cellHeight(track.meaning(), track.width(), track.height());
        for (int i = 0; i < outputs.size(); i++) {
            cellHeights[i + 1] = cellHeight(track.meaning(), outputs.get(i).width(), outputs.get(i).height());
        }
        Files.writeString(workspace.path(SCRIPT), graph(outputs, moments));
        List<String> command = new ArrayList<>(List.of("-v", "info", "-copyts"));
        // A new size in mid-stream is left to the scale filters: FFmpeg would make the graph anew and begin all counts again.
        command.addAll(List.of("-reinit_filter", "0", "-f", "matroska", "-i", "pipe:0"));
        for (RenditionOutput output : outputs) {
            command.addAll(List.of("-reinit_filter", "0", "-itsoffset", Integer.toString(SHIFT / 1000), "-noautorotate", "-i",
                    products.comparedName(output)));
        }
        command.addAll(List.of("-filter_complex_script", SCRIPT, "-map", "[pictures]", "-vsync", "0", "-f", "image2", "-update",
                "1", PICTURES));
        try (MediaProgram.Running program = MediaProgram.FFMPEG.start(workspace.folder(), command, true, this::read)) {
            feed(program, track, source);
            if (program.finish() == 0 && Files.exists(workspace.path(PICTURES))) {
                grid = ImageIO.read(workspace.path(PICTURES).toFile());
            }
        }
        for (int i = 0; i < figures.size(); i++) {
            Path measured = workspace.path(pictureFile(i + 1));
            if (Files.exists(measured)) {
                try (Stream<String> lines = Files.lines(measured)) {
                    figures.get(i).measured(lines.map(PICTURE_PSNR::matcher).filter(Matcher::matches)
                            .mapToDouble(line -> decibels(line.group(1))).toArray());
                }
            }
        }
    }

    private static String pictureFile(int rendition) {
        return "psnr" + rendition + ".txt";
    }

    private static double decibels(String text) {
        return text.equals("inf") ? Double.POSITIVE_INFINITY : Double.parseDouble(text);
    }

    private static void feed(MediaProgram.Running program, VideoTrack track, VideoSource source)
            throws IOException {
        MediaTrack pictures = MediaTrack.h264(track.width(), track.height()).timescale(TICKS);
        DecodingTimes decoding = new DecodingTimes(DecodingTimes.LARGEST_DEPTH, Math.round(TICKS / track.frameRate()));
        try (OutputStream pipe = program.input();
                ContainerWriter timed = ContainerWriter.builder(ContainerWriter.Format.MATROSKA).track(pictures)
                        .open(Channels.newChannel(pipe))) {
            for (AccessUnit unit = source.next(); unit != null; unit = source.next()) {
                long shown = Math.max(0, unit.time() + SHIFT) * (TICKS / 1000);
                long decoded = decoding.next(shown);
                try {
                    timed.write(0, unit.bytes(), Math.max(shown, decoded), decoded, 0);
                } catch (IllegalArgumentException damaged) {
                    // No decoder would make a picture of it.
                }
            }
            timed.finish();
        } catch (IOException | UncheckedIOException | MediaException enough) {
            // The program ends with the shortest stream.
        }
    }

    /** PSNR-Y of a rendition in dB: infinite when nothing differs, NaN when it could not be measured. */
    public double psnr(int rendition) {
        return psnr[rendition];
    }

    /** The pictures: a row for the source and for each rendition, a column for each moment; null when there are none. */
    public BufferedImage grid() {
        return grid;
    }

    /** Heights of the rows in pixels, before they are turned. */
    public int[] cellHeights() {
        return cellHeights;
    }

    /** Number of source pictures of which a part was lost and made up by the decoder. */
    public int damagedPictures() {
        return damagedPictures;
    }

    /** Cells have the shape of the pictures as they are shown, but are not turned yet. */
    private static int cellHeight(PictureMeaning meaning, int width, int height) {
        int[] shown = meaning.shownSize(width, height);
        boolean turned = meaning.rotation() % 180 != 0;
        return Math.max(2, 2 * Math.round(CELL_WIDTH / 2f * shown[turned ? 0 : 1] / shown[turned ? 1 : 0]));
    }

    /**
     * All streams meet in one stack before the moments are selected, although that scales pictures for nothing: a stream
     * with a way out of its own could run ahead, and the graph would hold its pictures until the others come, gigabytes
     * for a source of minutes.
     */
    private String graph(List<RenditionOutput> outputs, List<Long> moments) {
        StringBuilder graph = new StringBuilder("[0:v]split=").append(outputs.size() + 1);
        for (int i = 0; i <= outputs.size(); i++) {
            graph.append("[source").append(i).append(']');
        }
        graph.append(";\n[source0]").append(cell(0));
        for (int i = 1; i <= outputs.size(); i++) {
            RenditionOutput output = outputs.get(i - 1);
            for (String[] ends : new String[][] {{"source" + i, "reference"}, {i + ":v", "result"}}) {
                graph.append(Text.format("[%s]scale=%d:%d:flags=bicubic,format=yuv420p[%s%d];\n", ends[0],
                        output.width(), output.height(), ends[1], i));
            }
            graph.append(Text.format("[result%d][reference%1$d]psnr@%1$d=shortest=1:stats_file=%2$s,", i,
                    pictureFile(i))).append(cell(i));
        }
        for (int i = 0; i <= outputs.size(); i++) {
            graph.append("[cell").append(i).append(']');
        }
        return graph.append("vstack=inputs=").append(outputs.size() + 1).append(":shortest=1,select='")
                .append(moments.stream().map(moment -> "eq(round(t*1000)," + (moment + SHIFT) + ")")
                        .collect(Collectors.joining("+")))
                .append("',tile=").append(moments.size()).append("x1[pictures]\n").toString();
    }

    private String cell(int row) {
        return Text.format("scale=%d:%d:flags=area,format=yuv420p[cell%d];\n", CELL_WIDTH, cellHeights[row], row);
    }

    private void read(String line) {
        if (line == null) {
            return;
        }
        Matcher measured = PSNR.matcher(line);
        if (measured.matches()) {
            psnr[Integer.parseInt(measured.group(1)) - 1] = decibels(measured.group(2));
        } else if (line.contains("concealing ")) {
            damagedPictures++;
        }
    }
}
