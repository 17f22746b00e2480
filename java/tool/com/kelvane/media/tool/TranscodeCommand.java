package com.kelvane.media.tool;

import com.kelvane.media.Rendition;
import com.kelvane.media.tool.input.VideoTrack;
import com.kelvane.media.tool.output.LostPictures;
import com.kelvane.media.tool.output.RenditionOutput;
import com.kelvane.media.tool.output.RenditionRequest;
import com.kelvane.media.tool.output.SegmentKeys;
import com.kelvane.media.tool.output.Summary;
import com.kelvane.media.tool.output.Workspace;
import com.kelvane.media.tool.packager.Names;
import com.kelvane.media.tool.shell.Caller;
import com.kelvane.media.tool.shell.Failure;
import com.kelvane.media.tool.shell.JsonLines;
import java.io.IOException;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.HashSet;
import java.util.List;
import java.util.Set;
import java.util.concurrent.Callable;
import java.util.stream.IntStream;
import picocli.CommandLine.Command;
import picocli.CommandLine.Mixin;
import picocli.CommandLine.Model.CommandSpec;
import picocli.CommandLine.Option;
import picocli.CommandLine.ParameterException;
import picocli.CommandLine.Parameters;
import picocli.CommandLine.Spec;

@Command(name = "transcode", mixinStandardHelpOptions = true, versionProvider = Kelvane.Version.class,
        sortOptions = false, usageHelpAutoWidth = true, exitCodeListHeading = "%nExit codes:%n",
        exitCodeList = {"0:done", "1:failed", "2:wrong usage", "3:done, but renditions lack pictures that their encoder failed at"},
        description = {"Decodes one H.264 stream once and encodes it into several renditions.", ""},
        footer = {"", "DIR receives, with the sound, an HLS ladder (master.m3u8 and a folder of segments for each rendition) and"
                + " WxH.mp4 for every rendition, contact-sheet.png, which shows the source and every rendition at four"
                + " moments, result.json with every figure, and index.html, a page of it all with a player.", "", "Example:",
                "  kelvane transcode in.mp4 -r 1280x720@2500k -r 640x360@800k,key=60 --start 1:30 --duration 20", "",
                "For several films, or several machines: kelvane transcode --spark MASTER INPUT... makes HLS ladders on Apache"
                + " Spark; kelvane transcode --spark MASTER --help tells more."})
final class TranscodeCommand implements Callable<Integer> {
    private static final int MOST_THREADS = 64;

    @Spec
    private CommandSpec command;

    @Parameters(paramLabel = "INPUT", arity = "0..1", description = "Media file with an H.264 track, or a raw Annex-B stream;"
            + " without it a demonstration clip.")
    private Path input;

    @Option(names = {"-r", "--rendition"}, paramLabel = "WxH@BITRATE[,...]", converter = RenditionRequest.Converter.class,
            description = {"A rendition; may be given several times. BITRATE is in bits per second, k and M multiply. Options:",
                "  fps=N         pictures a second, 1-60: others are left out, evenly",
                "  key=N         key frame every N pictures, 1-480",
                "  qp=MIN-MAX    quantisers, 1-51", "  mode=quality  rate control by quality",
                "  cabac         CABAC entropy coding",
                "Default: the three largest usual sizes that fit into the source; at 1280x720 these are 1280x720@2500k,"
                + " 854x480@1200k and 640x360@800k, with a key frame every 2 seconds and the source's rate, halved while it is"
                + " above 60."})
    private List<RenditionRequest> renditions = new ArrayList<>();

    @Option(names = {"-o", "--output"}, paramLabel = "DIR", description = "Directory for the results, made if need be"
            + " (default: ${DEFAULT-VALUE}).")
    private Path directory = Path.of("transcoded");

    @Option(names = "--start", paramLabel = "TIME", converter = TimeConverter.class,
            description = "Begin here, with this picture: seconds, mm:ss or hh:mm:ss.")
    private double start;

    @Option(names = "--duration", paramLabel = "TIME", converter = TimeConverter.class,
            description = "End this much after the start.")
    private Double duration;

    @Mixin
    private SoundOption sound;

    @Option(names = "--threads", paramLabel = "N", description = "Decode and encode on N threads, 1-64 (default: one for each"
            + " core). The results are the same, byte for byte; more threads hold more decoded pictures, up to 16.")
    private Integer threads;

    @Option(names = "--no-compare", description = "Leave out the comparison with the source, which decodes everything once"
            + " more: PSNR and contact sheet.")
    private boolean noComparison;

    @Mixin
    private ResultOptions made;

    @Override
    public Integer call() throws IOException {
        checkUsage();
        if (made.json()) {
            JsonLines.turnOn();
        }
        VideoTrack track = VideoTrack.given(input);
        track.checkPictures();
        List<RenditionRequest> requests = renditions.isEmpty() ? RenditionRequest.ladder(track) : renditions;
        List<Rendition> wanted = requests.stream()
                .map(request -> request.completed(track.frameRate())).toList();
        List<Double> rates = requests.stream().map(request -> request.pictureRate(track.frameRate())).toList();
        List<RenditionOutput> outputs = IntStream.range(0, wanted.size()).mapToObj(i -> new RenditionOutput(
                wanted.get(i).width(), wanted.get(i).height(), rates.get(i), false)).toList();
        Path results = Caller.path(directory);
        List<String> folders = made.folders(outputs);
        check(!Workspace.wouldReplace(track.path(), results, made.files(outputs))
                && !Workspace.holds(results, folders, track.path()),
                track.path() + " would be overwritten by its own rendition; name another directory with -o");
        for (String folder : folders) {
            if (Files.exists(results.resolve(folder)) && !Names.isOurs(results.resolve(folder))) {
                throw new Failure("%s holds something else than segments, and is not replaced; name another directory with"
                        + " -o", results.resolve(folder));
            }
        }
        boolean whole;
        try (Workspace workspace = new Workspace(results)) {
            Summary.head(track);
            double length = duration == null ? Double.POSITIVE_INFINITY : duration;
            whole = new TranscodeRun(track, sound.choose(track), start, length, fitted(wanted, requests, rates), usedThreads(),
                    outputs, made, workspace).run(!noComparison);
        }
        if (!made.json()) {
            Summary.line("results: %s", results);
        }
        return whole ? 0 : LostPictures.EXIT_CODE;
    }

    private void checkUsage() {
        Set<String> sizes = new HashSet<>();
        for (RenditionRequest request : renditions) {
            check(sizes.add(request.size()), "there are two renditions of " + request.size()
                    + "; files are named after sizes, so each can be made once");
        }
        check(duration == null || duration > 0, "--duration takes more than 0");
        check(threads == null || threads > 0 && threads <= MOST_THREADS, "--threads takes 1 to " + MOST_THREADS);
        check(made.problem() == null, made.problem());
    }

    private int usedThreads() {
        return threads == null ? Math.min(MOST_THREADS, Runtime.getRuntime().availableProcessors()) : threads;
    }

    private void check(boolean right, String message) {
        if (!right) {
            throw new ParameterException(command.commandLine(), message);
        }
    }

    /** The renditions with key intervals that fit the segments; says where those that were asked for do not. */
    private List<Rendition> fitted(List<Rendition> wanted, List<RenditionRequest> requests, List<Double> rates) {
        int segment = made.products().segmentSeconds();
        if (!made.products().hls()) {
            return wanted;
        }
        List<Rendition> fitted = new ArrayList<>();
        for (int i = 0; i < wanted.size(); i++) {
            boolean given = requests.get(i).settings().keyInterval() > 0;
            if (given) {
                SegmentKeys.misfit(wanted.get(i), rates.get(i), segment).ifPresent(line -> Summary.line("%s", line));
            }
            fitted.add(given ? wanted.get(i) : SegmentKeys.withoutOwn(wanted.get(i), segment));
        }
        return fitted;
    }
}
