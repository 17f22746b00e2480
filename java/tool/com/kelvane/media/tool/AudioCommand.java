package com.kelvane.media.tool;

import com.kelvane.media.AacEncoder;
import com.kelvane.media.OpusDecoder;
import com.kelvane.media.OpusEncoder;
import com.kelvane.media.tool.input.AudioTrack;
import com.kelvane.media.tool.input.PcmFile;
import com.kelvane.media.tool.input.SoundPackets;
import com.kelvane.media.tool.output.OggOpusWriter;
import com.kelvane.media.tool.output.Workspace;
import com.kelvane.media.tool.shell.Caller;
import com.kelvane.media.tool.shell.Failure;
import com.kelvane.media.tool.shell.MediaProgram;
import com.kelvane.media.tool.shell.Progress;
import com.kelvane.media.tool.shell.Text;
import java.io.BufferedOutputStream;
import java.io.IOException;
import java.io.OutputStream;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.List;
import java.util.Optional;
import java.util.concurrent.Callable;
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
    private static final int ADTS_HEADER = 7; // bytes
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
        if (name.endsWith(".wav")) {
            List<String> arguments = new ArrayList<>(sound.asInput());
            arguments.addAll(List.of("-c", "copy", "-f", "wav", name));
            ffmpeg(arguments, workspace);
            return;
        }
        try (OutputStream file = new BufferedOutputStream(Files.newOutputStream(workspace.path(name)), 1 << 16)) {
            if (name.endsWith(".aac")) {
                encodeAac(sound, file);
            } else {
                encodeOpus(sound, file);
            }
        }
    }

    private static void encodeAac(PcmFile sound, OutputStream file) throws IOException {
        int rateIndex = AacEncoder.SAMPLE_RATES.indexOf(sound.sampleRate());
        PcmFile.Consumer writer = unit -> {
            int length = unit.length + ADTS_HEADER;
            file.write(new byte[] {(byte) 0xff, (byte) 0xf1, (byte) (1 << 6 | rateIndex << 2),
                (byte) (sound.channels() << 6 | length >> 11), (byte) (length >> 3), (byte) (length << 5 | 0x1f), (byte) 0xfc});
            file.write(unit);
        };
        try (AacEncoder encoder = AacEncoder.builder().channels(sound.channels()).sampleRate(sound.sampleRate()).open()) {
            sound.forEachBlock(AacEncoder.SAMPLES_PER_BLOCK, blocks(sound.samples(), AacEncoder.SAMPLES_PER_BLOCK), block -> {
                Optional<byte[]> unit = encoder.encode(block);
                if (unit.isPresent()) {
                    writer.accept(unit.get());
                }
            });
            List<byte[]> last = new ArrayList<>();
            encoder.drain(last::add);
            for (byte[] unit : last) {
                writer.accept(unit);
            }
        }
    }

    private static void encodeOpus(PcmFile sound, OutputStream file) throws IOException {
        long end = sound.samples() + OpusEncoder.LEAD_IN;
        OggOpusWriter ogg = new OggOpusWriter(file, sound.channels(), OpusEncoder.LEAD_IN);
        try (OpusEncoder encoder = OpusEncoder.builder().channels(sound.channels())
                .bitrate(OPUS_BITS_PER_SECOND * sound.channels()).open()) {
            sound.forEachBlock(OpusEncoder.SAMPLES_PER_FRAME, blocks(end, OpusEncoder.SAMPLES_PER_FRAME),
                    block -> ogg.write(encoder.encode(block)));
        }
        ogg.finish(end);
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
