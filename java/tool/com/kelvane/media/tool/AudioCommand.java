package com.kelvane.media.tool;

import com.kelvane.media.AacEncoder;
import com.kelvane.media.ContainerWriter;
import com.kelvane.media.MediaTrack;
import com.kelvane.media.OpusDecoder;
import com.kelvane.media.OpusEncoder;
import com.kelvane.media.tool.input.AudioTrack;
import com.kelvane.media.tool.input.PcmFile;
import com.kelvane.media.tool.input.SoundPackets;
import com.kelvane.media.tool.output.Workspace;
import com.kelvane.media.tool.shell.Caller;
import com.kelvane.media.tool.shell.Failure;
import com.kelvane.media.tool.shell.MediaProgram;
import com.kelvane.media.tool.shell.Progress;
import com.kelvane.media.tool.shell.Text;
import java.io.IOException;
import java.nio.channels.FileChannel;
import java.nio.file.Files;
import java.nio.file.Path;
import java.nio.file.StandardOpenOption;
import java.util.ArrayList;
import java.util.Arrays;
import java.util.List;
import java.util.concurrent.Callable;
import java.util.function.Consumer;
import picocli.CommandLine.Command;
import picocli.CommandLine.Model.CommandSpec;
import picocli.CommandLine.Option;
import picocli.CommandLine.ParameterException;
import picocli.CommandLine.Parameters;
import picocli.CommandLine.Spec;

@Command(name = "audio", mixinStandardHelpOptions = true, versionProvider = Kelvane.Version.class, sortOptions = false,
        usageHelpAutoWidth = true,
        description = {"Turns the sound of a file into WAV, AAC or Opus.", ""},
        footer = {"", "An .aac file cannot say that its first 1024 samples are the encoder's lead-in, nor where in its last"
                + " 1024 the sound ends.", "", "Example:", "  kelvane audio song.mp3 -o song.opus"})
final class AudioCommand implements Callable<Integer> {
    private static final int BLOCK = 1 << 14; // samples
    private static final int OPUS_BITS_PER_SECOND = 48000; // for each channel

    @Spec
    private CommandSpec command;

    @Parameters(paramLabel = "INPUT", description = "Media file with an AAC-LC, MP3 or Opus track of one or two channels, or"
            + " with PCM (WAV).")
    private Path input;

    @Option(names = {"-o", "--output"}, paramLabel = "OUT", required = true, description = "Result, by the end of its name:"
            + " .wav (16 bits), .aac (AAC-LC in ADTS, 64 kbit/s) or .opus (Ogg Opus, 48 kbit/s for each channel).")
    private Path output;

    @Override
    public Integer call() throws IOException {
        Path result = Caller.path(output);
        String name = String.valueOf(result.getFileName());
        check(name.matches(".+\\.(wav|aac|opus)"), "OUT must end in .wav, .aac or .opus");
        AudioTrack track = AudioTrack.open(Caller.path(input));
        check(!Workspace.wouldReplace(track.file().path(), result.getParent(), List.of(name)),
                result + " is the input itself; name another file with -o");
        long begin = System.nanoTime();
        double seconds;
        long bytes;
        int lost = 0;
        try (Workspace workspace = new Workspace(result.getParent())) {
            Progress.stage("reading " + track.file().path().getFileName());
            PcmFile sound;
            if (track.isPcm()) {
                sound = convert(List.of("-i", track.file().path().toString(), "-map", "0:" + track.index()),
                        targetRate(name, track.sampleRate()), Math.max(1, Math.min(2, track.channels())), workspace);
            } else {
                SoundPackets source = new SoundPackets(track, workspace.folder());
                PcmFile decoded = source.decode();
                lost = source.lost();
                int rate = targetRate(name, decoded.sampleRate());
                sound = rate == decoded.sampleRate() ? decoded
                        : convert(decoded.asInput(), rate, decoded.channels(), workspace);
            }
            seconds = sound.seconds();
            if (seconds == 0) {
                throw new Failure("%s has no sound", track.file().path());
            }
            write(sound, name, workspace);
            bytes = Files.size(workspace.path(name));
            workspace.publish(List.of(name));
        }
        Progress.clear();
        double spent = (System.nanoTime() - begin) / 1e9;
        if (lost > 0) {
            Caller.OUTPUT.println("damaged source: " + lost + " packets could not be decoded; silence stands in for them");
        }
        Caller.OUTPUT.println(Text.format("%.1f s of sound in %.2f s: %.1f times real time; %d bytes, %.1f kbit/s", seconds,
                spent, seconds / spent, bytes, bytes * 8 / seconds / 1000));
        Caller.OUTPUT.println("result: " + result);
        return 0;
    }

    private void check(boolean right, String message) {
        if (!right) {
            throw new ParameterException(command.commandLine(), message);
        }
    }

    private static int targetRate(String name, int sourceRate) {
        return name.endsWith(".opus") || name.endsWith(".aac") && !AacEncoder.SAMPLE_RATES.contains(sourceRate)
                ? OpusDecoder.SAMPLE_RATE : sourceRate;
    }

    private static void write(PcmFile sound, String name, Workspace workspace) throws IOException {
        String kind = name.substring(name.lastIndexOf('.') + 1);
        ContainerWriter.Builder builder = switch (kind) {
            case "wav" -> ContainerWriter.builder(ContainerWriter.Format.WAV)
                    .track(MediaTrack.pcm(sound.sampleRate(), sound.channels()));
            case "aac" -> ContainerWriter.builder(ContainerWriter.Format.ADTS)
                    .track(MediaTrack.aac(sound.sampleRate(), sound.channels()));
            default -> ContainerWriter.builder(ContainerWriter.Format.OGG).track(MediaTrack.opus(sound.channels()));
        };
        try (FileChannel file = FileChannel.open(workspace.path(name), StandardOpenOption.CREATE, StandardOpenOption.WRITE);
                ContainerWriter container = builder.open(file)) {
            switch (kind) {
                case "wav" -> copy(sound, container);
                case "aac" -> encodeAac(sound, container);
                default -> encodeOpus(sound, container);
            }
            container.finish();
        }
    }

    private static void copy(PcmFile sound, ContainerWriter file) throws IOException {
        int frame = PcmFile.BYTES_PER_SAMPLE * sound.channels();
        long[] time = {0};
        sound.forEachBlock(BLOCK, blocks(sound.samples(), BLOCK), block -> {
            int left = (int) Math.min(BLOCK, sound.samples() - time[0]);
            file.write(0, Arrays.copyOf(block, left * frame), time[0]);
            time[0] += left;
        });
    }

    private static void encodeAac(PcmFile sound, ContainerWriter file) throws IOException {
        long[] time = {-AacEncoder.LEAD_IN};
        Consumer<byte[]> writer = unit -> {
            file.write(0, unit, time[0]);
            time[0] += AacEncoder.SAMPLES_PER_BLOCK;
        };
        try (AacEncoder encoder = AacEncoder.builder().channels(sound.channels()).sampleRate(sound.sampleRate()).open()) {
            sound.forEachBlock(AacEncoder.SAMPLES_PER_BLOCK, blocks(sound.samples(), AacEncoder.SAMPLES_PER_BLOCK),
                    block -> encoder.encode(block).ifPresent(writer));
            encoder.drain(writer);
        }
    }

    private static void encodeOpus(PcmFile sound, ContainerWriter file) throws IOException {
        long end = sound.samples();
        long[] time = {-OpusEncoder.LEAD_IN};
        try (OpusEncoder encoder = OpusEncoder.builder().channels(sound.channels())
                .bitrate(OPUS_BITS_PER_SECOND * sound.channels()).open()) {
            sound.forEachBlock(OpusEncoder.SAMPLES_PER_FRAME, blocks(end + OpusEncoder.LEAD_IN, OpusEncoder.SAMPLES_PER_FRAME),
                    block -> {
                        // What the last packet holds beyond the end is not to be heard.
                        file.write(0, encoder.encode(block), time[0], time[0],
                                Math.min(OpusEncoder.SAMPLES_PER_FRAME, end - time[0]));
                        time[0] += OpusEncoder.SAMPLES_PER_FRAME;
                    });
        }
    }

    private static int blocks(long samples, int samplesPerBlock) {
        return Math.toIntExact((samples + samplesPerBlock - 1) / samplesPerBlock);
    }

    private static PcmFile convert(List<String> from, int sampleRate, int channels, Workspace workspace) throws IOException {
        PcmFile converted = new PcmFile(workspace.path("converted.pcm"), sampleRate, channels);
        List<String> arguments = new ArrayList<>(from);
        arguments.addAll(List.of("-ar", Integer.toString(sampleRate), "-ac", Integer.toString(channels),
                "-f", "s16le", converted.path().toString()));
        ffmpeg(arguments, workspace);
        return converted;
    }

    private static void ffmpeg(List<String> arguments, Workspace workspace) throws IOException {
        List<String> command = new ArrayList<>(List.of("-v", "error"));
        command.addAll(arguments);
        var error = new MediaProgram.FirstError(workspace.folder());
        if (MediaProgram.FFMPEG.run(workspace.folder(), command, line -> { }, error) != 0) {
            throw new Failure("the sound could not be converted: %s", error);
        }
    }
}
