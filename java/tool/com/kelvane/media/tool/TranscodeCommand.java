package com.kelvane.media.tool;

import com.kelvane.media.Rendition;
import com.kelvane.media.Transcoder;
import com.kelvane.media.tool.input.AacSource;
import com.kelvane.media.tool.input.AudioTrack;
import com.kelvane.media.tool.input.Timeline;
import com.kelvane.media.tool.input.VideoSource;
import com.kelvane.media.tool.input.VideoTrack;
import com.kelvane.media.tool.output.Comparison;
import com.kelvane.media.tool.output.ContactSheet;
import com.kelvane.media.tool.output.RenditionOutput;
import com.kelvane.media.tool.output.RenditionRequest;
import com.kelvane.media.tool.output.Results;
import com.kelvane.media.tool.output.Summary;
import com.kelvane.media.tool.output.Workspace;
import com.kelvane.media.tool.shell.Caller;
import com.kelvane.media.tool.shell.FFmpegLog;
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
import picocli.CommandLine.Mixin;
import picocli.CommandLine.Model.CommandSpec;
import picocli.CommandLine.Option;
import picocli.CommandLine.ParameterException;
import picocli.CommandLine.Parameters;
import picocli.CommandLine.Spec;

@Command(name = "transcode", mixinStandardHelpOptions = true, versionProvider = Kelvane.Version.class,
        sortOptions = false, usageHelpAutoWidth = true,
        description = {"Decodes one H.264 stream once and encodes it into several renditions.", ""},
        footer = {"", "DIR receives WxH.h264 and, with the sound, WxH.mp4 for every rendition, and contact-sheet.png, which shows"
                + " the source and every rendition at four moments.", "", "Example:",
                "  kelvane transcode in.mp4 -r 1280x720@2500k -r 640x360@800k,key=60 --start 1:30 --duration 20"})
final class TranscodeCommand implements Callable<Integer> {
    private static final String SHEET = "contact-sheet.png";

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

    @Option(names = "--no-compare", description = "Leave out the comparison with the source, which decodes everything once"
            + " more: PSNR and contact sheet.")
    private boolean noComparison;

    @Override
    public Integer call() throws IOException {
        checkUsage();
        VideoTrack track = VideoTrack.given(input);
        track.checkPictures();
        List<RenditionRequest> requests = renditions.isEmpty() ? RenditionRequest.ladder(track) : renditions;
        List<Rendition> wanted = requests.stream()
                .map(request -> request.completed(track.frameRate())).toList();
        List<Double> rates = requests.stream().map(request -> request.pictureRate(track.frameRate())).toList();
        Path results = Caller.path(directory);
        List<String> files = new ArrayList<>(List.of(SHEET));
        for (Rendition rendition : wanted) {
            String size = rendition.width() + "x" + rendition.height();
            files.addAll(List.of(size + ".mp4", size + ".h264"));
        }
        check(!Workspace.wouldReplace(track.path(), results, files),
                track.path() + " would be overwritten by its own rendition; name another directory with -o");
        try (Workspace workspace = new Workspace(results)) {
            transcode(track, wanted, rates, workspace);
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
        check(duration == null || duration > 0, "--duration takes more than 0");
    }

    private void check(boolean right, String message) {
        if (!right) {
            throw new ParameterException(command.commandLine(), message);
        }
    }

    private void transcode(VideoTrack track, List<Rendition> wanted, List<Double> rates, Workspace workspace)
            throws IOException {
        FFmpegLog.silence();
        Summary.head(track);
        AudioTrack audio = sound.choose(track);
        Timeline timeline = track.timeline(audio, start, duration == null ? Double.POSITIVE_INFINITY : duration);
        List<RenditionOutput> outputs = new ArrayList<>();
        for (int i = 0; i < wanted.size(); i++) {
            outputs.add(new RenditionOutput(wanted.get(i).width(), wanted.get(i).height(), rates.get(i), false));
        }
        Transcoding transcoding;
        String damage;
        int accessUnits;
        try (AacSource heard = audio == null ? null : AacSource.open(audio, timeline);
                Results files = new Results(outputs, track.meaning(), heard, workspace);
                VideoSource source = new VideoSource(track, timeline)) {
            transcoding = new Transcoding(track, timeline, rates, files);
            double left = Math.max(0, track.seconds() - start);
            transcoding.run(wanted, source, duration == null ? left : left > 0 ? Math.min(left, duration) : duration);
            checkProduced(track, transcoding);
            Progress.stage("writing MP4 files");
            files.finish();
            accessUnits = source.count();
            damage = source.damage(transcoding.shown().last() / 1000.0 + 1 / track.frameRate());
        }

        double seconds = transcoding.shown().seconds(track.frameRate());
        List<String> files = new ArrayList<>();
        outputs.forEach(output -> files.addAll(List.of(output.streamName(), output.containerName())));
        Comparison comparison = noComparison ? null : compare(track, timeline, transcoding, outputs, workspace);
        if (comparison != null && comparison.grid() != null) {
            drawSheet(track, outputs, transcoding, seconds, comparison, workspace);
            files.add(SHEET);
        }
        workspace.publish(files);
        Progress.clear();
        Summary.table(transcoding.statistics(), seconds, comparison);
        int pictures = transcoding.shown().count();
        Summary.line("%d pictures, %.1f s of video, in %.2f s: %.0f pictures a second, %.1f times real time; %.2f s of CPU in"
                + " the transcoding thread", pictures, seconds, transcoding.seconds(), pictures / transcoding.seconds(),
                seconds / transcoding.seconds(), transcoding.cpuSeconds());
        Summary.notes(accessUnits, transcoding.statistics().pictures(), damage, comparison);
    }

    private void checkProduced(VideoTrack track, Transcoding transcoding) {
        Transcoder.Statistics statistics = transcoding.statistics();
        if (transcoding.shown().count() == 0) {
            double end = statistics.pictures() == 0 ? track.seconds()
                    : start + transcoding.last() / 1000.0 + 1 / track.frameRate();
            throw start > 0 && end <= start ? new Failure("%s ends after %.1f seconds; begin earlier with --start",
                    track.path(), end) : new Failure("no picture of %s could be decoded", track.path());
        }
        for (Transcoder.RenditionStatistics rendition : statistics.renditions()) {
            if (rendition.pictures() == 0) {
                throw new Failure("pictures were decoded but OpenH264 encoded none for %dx%d; change its size, bit rate or"
                        + " quantisers", rendition.rendition().width(), rendition.rendition().height());
            }
        }
    }

    private static Comparison compare(VideoTrack track, Timeline timeline, Transcoding transcoding,
                                      List<RenditionOutput> outputs, Workspace workspace) throws IOException {
        Progress.stage("comparing with the source");
        try (VideoSource source = new VideoSource(track, timeline)) {
            return new Comparison(track, source, outputs, transcoding.times().moments(), workspace);
        }
    }

    private static void drawSheet(VideoTrack track, List<RenditionOutput> outputs, Transcoding transcoding, double seconds,
                                  Comparison comparison, Workspace workspace) throws IOException {
        List<ContactSheet.Label> labels = new ArrayList<>();
        labels.add(new ContactSheet.Label("source", List.of(track.width() + "x" + track.height(),
                String.format("%.2f pictures/s", track.frameRate()))));
        for (int i = 0; i < outputs.size(); i++) {
            labels.add(Summary.label(outputs.get(i).size(), transcoding.statistics().renditions().get(i).bytes(), seconds,
                    comparison.psnr(i)));
        }
        ContactSheet.draw(track.path().getFileName().toString(), comparison.grid(), comparison.cellHeights(), labels,
                transcoding.times().moments(), workspace.path(SHEET));
    }
}
