package com.kelvane.media.tool;

import com.kelvane.media.Pipeline;
import com.kelvane.media.ProcessingModule;
import com.kelvane.media.tool.input.AacSource;
import com.kelvane.media.tool.input.AudioTrack;
import com.kelvane.media.tool.input.Timeline;
import com.kelvane.media.tool.input.VideoSource;
import com.kelvane.media.tool.input.VideoTrack;
import com.kelvane.media.tool.output.Comparison;
import com.kelvane.media.tool.output.ContactSheet;
import com.kelvane.media.tool.output.LostPictures;
import com.kelvane.media.tool.output.Products;
import com.kelvane.media.tool.output.RenditionOutput;
import com.kelvane.media.tool.output.RenditionRequest;
import com.kelvane.media.tool.output.Results;
import com.kelvane.media.tool.output.Summary;
import com.kelvane.media.tool.output.Workspace;
import com.kelvane.media.tool.shell.Caller;
import com.kelvane.media.tool.shell.Diagnostics;
import com.kelvane.media.tool.shell.Failure;
import com.kelvane.media.tool.shell.Progress;
import com.kelvane.media.tool.shell.Text;
import java.io.IOException;
import java.nio.file.Files;
import java.nio.file.Path;
import java.nio.file.StandardCopyOption;
import java.util.LinkedHashMap;
import java.util.List;
import java.util.Map;
import java.util.concurrent.Callable;
import picocli.CommandLine.Command;
import picocli.CommandLine.ITypeConverter;
import picocli.CommandLine.Mixin;
import picocli.CommandLine.Model.CommandSpec;
import picocli.CommandLine.Option;
import picocli.CommandLine.ParameterException;
import picocli.CommandLine.Parameters;
import picocli.CommandLine.Spec;
import picocli.CommandLine.TypeConversionException;

@Command(name = "process", mixinStandardHelpOptions = true, versionProvider = Kelvane.Version.class,
        sortOptions = false, usageHelpAutoWidth = true,
        description = {"Decodes an H.264 stream, has a module work on every picture and encodes what it keeps.", ""},
        footer = {"", "Results are OUT.h264, OUT.mp4 and OUT.png, which shows four moments before and after.", "", "Example:",
                "  kelvane process in.mp4 --module modules/mosaic.so --set region=200,200,400,300"})
final class ProcessCommand implements Callable<Integer> {
    private static final Products PRODUCTS = new Products(true, true, 0);
    private static final int SMALLEST_BITRATE = 256_000;
    private static final int LARGEST_RATE = 60;
    private static final double BITS_PER_SAMPLE = 0.1;

    @Spec
    private CommandSpec command;

    @Parameters(paramLabel = "INPUT", arity = "0..1", description = "Media file with an H.264 track, or a raw Annex-B stream;"
            + " without it a demonstration clip.")
    private Path input;

    @Option(names = "--module", paramLabel = "LIB.so", required = true, description = "The module, a shared library.")
    private Path library;

    @Option(names = "--set", paramLabel = "KEY=VALUE", converter = SettingConverter.class,
            description = "A setting for the module; may be given several times.")
    private List<Setting> settings = List.of();

    @Option(names = "--rate", paramLabel = "N", description = "Pictures per second that bits are shared out for, 1-60; there is"
            + " a key frame every 2 N pictures (default: the source's rate).")
    private Integer rate;

    @Option(names = "--bitrate", paramLabel = "B", converter = BitrateConverter.class, description = "Bits per second, k and M"
            + " multiply; a hint, the encoder goes by quality (default: 0.1 bits a pixel, 256k or more).")
    private Integer bitrate;

    @Option(names = "--pass-through", description = "Give the module the access units themselves; nothing is decoded or"
            + " encoded.")
    private boolean passThrough;

    @Option(names = {"-o", "--output"}, paramLabel = "OUT", description = "Path of the results, without extension (default:"
            + " ${DEFAULT-VALUE}).")
    private Path out = Path.of("processed");

    @Mixin
    private SoundOption sound;

    @Option(names = "--no-compare", description = "Leave out the comparison with the source: PSNR and picture sheet.")
    private boolean noComparison;

    private final LostPictures lost = new LostPictures();

    record Setting(String key, String value) {
    }

    static final class SettingConverter implements ITypeConverter<Setting> {
        @Override
        public Setting convert(String text) {
            int equals = text.indexOf('=');
            if (equals <= 0) {
                throw new TypeConversionException(text + ": expected KEY=VALUE");
            }
            return new Setting(text.substring(0, equals), text.substring(equals + 1));
        }
    }

    static final class BitrateConverter implements ITypeConverter<Integer> {
        @Override
        public Integer convert(String text) {
            return RenditionRequest.Converter.bitrate(text);
        }
    }

    @Override
    public Integer call() throws IOException {
        check(rate == null || rate >= 1 && rate <= LARGEST_RATE, "--rate takes whole numbers from 1 to " + LARGEST_RATE);
        Path results = Caller.path(out);
        check(results.getFileName() != null, "-o takes a path with a file name");
        VideoTrack track = VideoTrack.given(input);
        if (!passThrough) {
            track.checkPictures();
        }
        String name = results.getFileName().toString();
        for (Path source : List.of(track.path(), Caller.path(library))) {
            check(!Files.exists(source) || !Workspace.wouldReplace(source, results.getParent(),
                    List.of(name + ".h264", name + ".mp4", name + ".png")),
                    source + " would be overwritten by its own result; name another with -o");
        }
        Diagnostics.tellOfModules();
        ProcessingModule module = ProcessingModule.load(Caller.path(library));
        int pictures = rate != null ? rate : (int) Math.max(1, Math.min(LARGEST_RATE, Math.round(track.frameRate())));
        int bits = bitrate != null ? bitrate
                : (int) Math.max(SMALLEST_BITRATE, BITS_PER_SAMPLE * track.width() * track.height() * pictures);
        Pipeline.Builder builder = Pipeline.builder().module(module).frameRate(pictures).bitrate(bits).onFailure(lost);
        settings.forEach(setting -> builder.setting(setting.key, setting.value));
        try (Pipeline pipeline = open(passThrough ? builder.passThrough() : builder);
                Workspace workspace = new Workspace(results.getParent())) {
            process(track, module, pipeline, name, workspace);
        }
        Caller.OUTPUT.println("results: " + results + ".*");
        return 0;
    }

    private static Pipeline open(Pipeline.Builder builder) {
        try {
            return builder.open();
        } catch (IllegalArgumentException refusedSetting) {
            throw new Failure("%s", refusedSetting.getMessage());
        }
    }

    private void check(boolean right, String message) {
        if (!right) {
            throw new ParameterException(command.commandLine(), message);
        }
    }

    private void process(VideoTrack track, ProcessingModule module, Pipeline pipeline, String name, Workspace workspace)
            throws IOException {
        Summary.head(track);
        AudioTrack audio = sound.choose(track);
        Timeline timeline = track.timeline(audio, 0, Double.POSITIVE_INFINITY);
        // The encoder leaves out the last column and row of an odd size.
        RenditionOutput output = passThrough
                ? new RenditionOutput(track.width(), track.height(), track.frameRate(), true)
                : new RenditionOutput(track.width() / 2 * 2, track.height() / 2 * 2, track.frameRate(), true);
        Processing processing;
        String damage;
        int accessUnits;
        try (AacSource heard = audio == null ? null : AacSource.open(audio, timeline);
                Results files = new Results(List.of(output), PRODUCTS, track.meaning(), passThrough ? track.reorderDepth() : 0,
                        heard, null, workspace);
                VideoSource source = new VideoSource(track, timeline)) {
            processing = new Processing(pipeline, files);
            processing.run(source, track.seconds());
            checkProduced(track, module, pipeline.statistics());
            Progress.stage("writing the MP4 file");
            files.finish(processing.last() + 1000 / track.frameRate());
            accessUnits = source.count();
            damage = source.damage(processing.kept().last() / 1000.0 + 1 / track.frameRate());
        }
        Pipeline.Statistics statistics = pipeline.statistics();
        double seconds = processing.kept().seconds(track.frameRate());
        List<Long> moments = processing.kept().moments();
        Comparison comparison = null;
        if (!noComparison) {
            Progress.stage("comparing with the source");
            try (VideoSource source = new VideoSource(track, timeline)) {
                comparison = new Comparison(track, source, List.of(output), PRODUCTS, List.of(), moments, workspace);
            }
        }
        Map<String, String> files = new LinkedHashMap<>();
        files.put(output.streamName(), name + ".h264");
        files.put(output.containerName(), name + ".mp4");
        if (comparison != null && comparison.grid() != null) {
            drawSheet(track, statistics, moments, seconds, comparison, workspace.path("sheet.png"));
            files.put("sheet.png", name + ".png");
        }
        for (Map.Entry<String, String> file : files.entrySet()) {
            Files.move(workspace.path(file.getKey()), workspace.path(file.getValue()), StandardCopyOption.REPLACE_EXISTING);
        }
        workspace.publish(List.copyOf(files.values()));
        Progress.clear();
        summarise(statistics, seconds);
        Summary.notes(accessUnits, statistics.pictures(), damage, comparison);
        lost.lines(List.of("the result")).forEach(line -> Summary.line("%s", line));
    }

    private static void checkProduced(VideoTrack track, ProcessingModule module, Pipeline.Statistics statistics) {
        if (statistics.pictures() == 0) {
            throw new Failure("no picture of %s could be decoded", track.path());
        }
        if (statistics.dropped() == statistics.pictures()) {
            throw new Failure("%s dropped every picture, so there is nothing to write", module.file());
        }
        if (statistics.dropped() + statistics.skipped() + statistics.failed() == statistics.pictures()) {
            throw new Failure("pictures were decoded but none encoded; another --rate or --bitrate may help, or a source of"
                    + " another size");
        }
    }

    private static void drawSheet(VideoTrack track, Pipeline.Statistics statistics, List<Long> moments,
                                  double seconds, Comparison comparison, Path file) throws IOException {
        List<ContactSheet.Label> labels = List.of(
                new ContactSheet.Label("before", List.of(track.width() + "x" + track.height(),
                        Text.format("%.2f pictures/s", track.frameRate()))),
                Summary.label("after", statistics.bytes(), seconds, comparison.psnr(0)));
        ContactSheet.draw(track.path().getFileName().toString(), comparison.grid(), comparison.cellHeights(),
                track.meaning().rotation(), labels, moments, file);
    }

    private void summarise(Pipeline.Statistics statistics, double seconds) {
        long kept = statistics.pictures() - statistics.dropped() - statistics.skipped() - statistics.failed();
        Summary.line("");
        Summary.line("%-24s%d", passThrough ? "access units in" : "pictures in", statistics.pictures());
        Summary.line("%-24s%d", "kept", kept);
        Summary.line("%-24s%d", "dropped by the module", statistics.dropped());
        if (statistics.skipped() > 0) {
            Summary.line("%-24s%d", "skipped by the encoder", statistics.skipped());
        }
        if (statistics.failed() > 0) {
            Summary.line("%-24s%d", "not encoded", statistics.failed());
        }
        Summary.line("%-24s%d (%.1f kbit/s)", "encoded bytes", statistics.bytes(),
                Summary.kilobitsPerSecond(statistics.bytes(), seconds));
        Summary.line("%-24s%.2f ms %s", passThrough ? "in the module" : "through the pipeline",
                Summary.milliseconds(statistics.time(), statistics.pictures()),
                passThrough ? "an access unit" : "a picture");
        Summary.line("");
    }
}
