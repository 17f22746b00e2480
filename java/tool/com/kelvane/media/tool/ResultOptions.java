package com.kelvane.media.tool;

import com.kelvane.media.tool.output.Page;
import com.kelvane.media.tool.output.Products;
import com.kelvane.media.tool.output.RenditionOutput;
import com.kelvane.media.tool.output.RunReport;
import com.kelvane.media.tool.packager.Names;
import java.util.ArrayList;
import java.util.List;
import picocli.CommandLine.Option;

/** What a transcoding leaves in its directory. */
final class ResultOptions {
    static final String SHEET = "contact-sheet.png";
    private static final int LONGEST_SEGMENT = 60;

    @Option(names = "--segment", paramLabel = "SECONDS", description = "Length of HLS segments, 1-60 whole seconds (default:"
            + " ${DEFAULT-VALUE}).")
    private int segment = 4;

    @Option(names = "--no-hls", description = "Make no HLS ladder.")
    private boolean noHls;

    @Option(names = "--no-mp4", description = "Make no MP4 files.")
    private boolean noMp4;

    @Option(names = "--raw", description = "Make bare streams, WxH.h264, as well.")
    private boolean raw;

    @Option(names = "--json", description = "Print lines of JSON: progress, messages, and in the end what is in result.json.")
    private boolean json;

    boolean json() {
        return json;
    }

    /** What is wrong with the options, or null. */
    String problem() {
        return segment < 1 || segment > LONGEST_SEGMENT ? "--segment takes whole seconds from 1 to " + LONGEST_SEGMENT
                : noHls && noMp4 && !raw ? "--no-hls and --no-mp4 leave nothing to make but with --raw" : null;
    }

    Products products() {
        return new Products(!noMp4, raw, noHls ? 0 : segment);
    }

    /** Names of the folders that a run may make. */
    List<String> folders(List<RenditionOutput> outputs) {
        List<String> folders = new ArrayList<>();
        if (!noHls) {
            outputs.forEach(output -> folders.add(output.size()));
            folders.add(Names.SOUND);
        }
        return folders;
    }

    /** Whether a file is written in the end, when all others are there. */
    boolean isReport(String name) {
        return name.equals(RunReport.FILE) || name.equals(Page.FILE);
    }

    /** Names of the files that a run may make, the one that leads to all others last. */
    List<String> files(List<RenditionOutput> outputs) {
        List<String> files = new ArrayList<>();
        for (RenditionOutput output : outputs) {
            if (!noMp4) {
                files.add(output.containerName());
            }
            if (raw) {
                files.add(output.streamName());
            }
        }
        files.addAll(List.of(SHEET, RunReport.FILE, Page.FILE));
        if (!noHls) {
            files.add(Names.MASTER);
        }
        return files;
    }
}
