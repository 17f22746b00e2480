package com.kelvane.media.tool;

import com.kelvane.media.Rendition;
import com.kelvane.media.Transcoder;
import com.kelvane.media.tool.input.AccessUnits;
import com.kelvane.media.tool.input.VideoTrack;
import com.kelvane.media.tool.output.Comparison;
import com.kelvane.media.tool.output.ContactSheet;
import com.kelvane.media.tool.output.RenditionOutput;
import com.kelvane.media.tool.output.RenditionRequest;
import com.kelvane.media.tool.output.Summary;
import com.kelvane.media.tool.output.Workspace;
import com.kelvane.media.tool.shell.Caller;
import com.kelvane.media.tool.shell.Failure;
import com.kelvane.media.tool.shell.Progress;
import java.io.IOException;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.HashSet;
import java.util.List;
import java.util.Set;
import java.util.concurrent.Callable;
import picocli.CommandLine.Command;
import picocli.CommandLine.Model.CommandSpec;
import picocli.CommandLine.Option;
import picocli.CommandLine.ParameterException;
import picocli.CommandLine.Parameters;
import picocli.CommandLine.Spec;

@Command(name = "transcode", mixinStandardHelpOptions = true, versionProvider = Kelvane.Version.class,
        sortOptions = false, usageHelpAutoWidth = true,
        description = {"Decodes one H.264 stream once and encodes it into several renditions.", ""},
        footer = {"", "DIR receives WxH.h264 and WxH.mp4 for every rendition, and contact-sheet.png, which shows the source and"
                + " every rendition at four moments.", "", "Example:",
                "  kelvane transcode in.mp4 -r 1280x720@2500k -r 640x360@800k,key=60"})
final class TranscodeCommand implements Callable<Integer> {
    private static final String SHEET = "contact-sheet.png";

    @Spec
    private CommandSpec command;

    @Parameters(paramLabel = "INPUT", arity = "0..1", description = "Media file with an H.264 track, or a raw Annex-B stream;"
            + " without it a demonstration clip.")
    private Path input;

    @Option(names = {"-r", "--rendition"}, paramLabel = "WxH@BITRATE[,...]", converter = RenditionRequest.Converter.class,
            description = {"A rendition; may be given several times. BITRATE is in bits per second, k and M multiply. Options:",
                "  fps=N         rate that bits are shared out for, 1-60", "  key=N         key frame every N pictures, 1-480",
                "  qp=MIN-MAX    quantisers, 1-51", "  mode=quality  rate control by quality",
                "  cabac         CABAC entropy coding",
                "Default: the three largest usual sizes that fit into the source; at 1280x720 these are 1280x720@2500k,"
                + " 854x480@1200k and 640x360@800k, with a key frame every 2 seconds."})
    private List<RenditionRequest> renditions = new ArrayList<>();

    @Option(names = {"-o", "--output"}, paramLabel = "DIR", description = "Directory for the results, made if need be"
            + " (default: ${DEFAULT-VALUE}).")
    private Path directory = Path.of("transcoded");

    @Option(names = "--start", paramLabel = "S", description = "Begin at the key frame at or before this second.")
    private double start;

    @Option(names = "--duration", paramLabel = "S", description = "End this many seconds after the start.")
    private Double duration;

    @Override
    public Integer call() throws IOException {
        checkUsage();
        VideoTrack track = VideoTrack.given(input);
        track.checkPictures();
        List<Rendition> wanted = (renditions.isEmpty() ? RenditionRequest.ladder(track) : renditions).stream()
                .map(request -> request.completed(track.frameRate())).toList();
        Path results = Caller.path(directory);
        List<String> files = new ArrayList<>(List.of(SHEET));
        for (Rendition rendition : wanted) {
            String size = rendition.width() + "x" + rendition.height();
            files.addAll(List.of(size + ".mp4", size + ".h264"));
        }
        check(!Workspace.wouldReplace(track.path(), results, files),
                track.path() + " would be overwritten by its own rendition; name another directory with -o");
        try (Workspace workspace = new Workspace(results)) {
            transcode(track, wanted, workspace);
        }
        Caller.OUTPUT.println("results: " + results);
        return 0;
    }

    private void checkUsage() {
        Set<String> sizes = new HashSet<>();
        for (RenditionRequest request : renditions) {
            String size = request.settings().width() + "x" + request.settings().height();
            check(sizes.add(size), "there are two renditions of " + size
                    + "; files are named after sizes, so each can be made once");
        }
        check(start >= 0 && start < 1e9, "--start takes seconds, 0 or more");
        check(duration == null || duration > 0 && duration < 1e9, "--duration takes seconds, more than 0");
    }

    private void check(boolean right, String message) {
        if (!right) {
            throw new ParameterException(command.commandLine(), message);
        }
    }

    private void transcode(VideoTrack track, List<Rendition> wanted, Workspace workspace) throws IOException {
        Progress.stage("reading " + track.path().getFileName());
        AccessUnits source = new AccessUnits(track, start, duration == null ? 0 : duration, workspace.folder());
        Progress.clear();
        Summary.head(source, track);
        List<RenditionOutput> outputs = new ArrayList<>();
        Transcoding transcoding = new Transcoding(outputs);
        try {
            for (Rendition rendition : wanted) {
                outputs.add(new RenditionOutput(rendition.width(), rendition.height(), track.frameRate(), false, workspace));
            }
            transcoding.run(wanted, source);
        } finally {
            for (RenditionOutput output : outputs) {
                output.close();
            }
        }
        checkProduced(track, transcoding.statistics());

        Progress.stage("writing MP4 files");
        RenditionOutput.makeContainers(outputs, workspace);
        Progress.stage("comparing with the source");
        double seconds = transcoding.times().seconds(track.frameRate());
        List<Long> moments = transcoding.times().moments();
        Comparison comparison = new Comparison(track, source, outputs, moments, workspace);
        List<String> files = new ArrayList<>();
        for (RenditionOutput output : outputs) {
            files.addAll(List.of(output.streamName(), output.containerName()));
        }
        if (comparison.grid() != null) {
            drawSheet(track, outputs, moments, seconds, comparison, workspace);
            files.add(SHEET);
        }
        workspace.publish(files);
        Progress.clear();
        Summary.table(outputs, transcoding.statistics(), seconds, comparison);
        long pictures = transcoding.statistics().pictures();
        Summary.line("%d pictures, %.1f s of video, in %.2f s: %.0f pictures a second, %.1f times real time; %.2f s of CPU in"
                + " the transcoding thread", pictures, seconds, transcoding.seconds(), pictures / transcoding.seconds(),
                seconds / transcoding.seconds(), transcoding.cpuSeconds());
        Summary.notes(source, pictures, comparison);
    }

    private static void checkProduced(VideoTrack track, Transcoder.Statistics statistics) {
        if (statistics.pictures() == 0) {
            throw new Failure("no picture of %s could be decoded", track.path());
        }
        for (Transcoder.RenditionStatistics rendition : statistics.renditions()) {
            if (rendition.pictures() == 0) {
                throw new Failure("pictures were decoded but OpenH264 encoded none for %dx%d; change its size, bit rate or"
                        + " quantisers", rendition.rendition().width(), rendition.rendition().height());
            }
        }
    }

    private static void drawSheet(VideoTrack track, List<RenditionOutput> outputs, List<Long> moments, double seconds,
                                  Comparison comparison, Workspace workspace) throws IOException {
        List<ContactSheet.Label> labels = new ArrayList<>();
        labels.add(new ContactSheet.Label("source", List.of(track.width() + "x" + track.height(),
                String.format("%.2f pictures/s", track.frameRate()))));
        for (int i = 0; i < outputs.size(); i++) {
            labels.add(Summary.label(outputs.get(i).size(), outputs.get(i), seconds, comparison.psnr(i)));
        }
        ContactSheet.draw(track.path().getFileName().toString(), comparison.grid(), comparison.cellHeights(), labels, moments,
                workspace.path(SHEET));
    }
}
