package com.kelvane.media.tool;

import com.kelvane.media.transform.codec.AACEncoder;
import com.kelvane.media.transform.codec.AVCDecoder;
import com.kelvane.media.transform.codec.NOpusEncoder;
import java.io.BufferedOutputStream;
import java.io.IOException;
import java.io.OutputStream;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.Arrays;
import java.util.List;
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
    private static final List<Integer> AAC_RATES =
            List.of(96000, 88200, 64000, 48000, 44100, 32000, 24000, 22050, 16000, 12000, 11025, 8000, 7350);
    private static final int AAC_BLOCK = 1024;
    private static final int OPUS_RATE = 48000;
    private static final int OPUS_FRAME = 960;
    private static final int OPUS_LEAD_IN = 312;   // by which libopus's encoder lags behind
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
        Path result = Caller.DIRECTORY.resolve(output).normalize();
        String name = String.valueOf(result.getFileName());
        check(name.matches(".+\\.(wav|aac|opus)"), "OUT must end in .wav, .aac or .opus");
        AudioTrack track = AudioTrack.open(Caller.DIRECTORY.resolve(input).normalize());
        check(!Files.exists(result) || !Files.isSameFile(result, track.file().path()),
                result + " is the input itself; name another file with -o");
        AVCDecoder.close(AVCDecoder.open()); // silences FFmpeg's log for the whole process
        long begin = System.nanoTime();
        double seconds;
        long bytes;
        int lost = 0;
        try (Workspace workspace = new Workspace(result.getParent())) {
            Progress.stage("reading " + track.file().path().getFileName());
            Pcm sound;
            if (track.isPcm()) {
                sound = convert(List.of("-i", track.file().path().toString(), "-map", "0:" + track.index()),
                        targetRate(name, track.sampleRate()), Math.max(1, Math.min(2, track.channels())), workspace);
            } else {
                SoundPackets source = new SoundPackets(track, workspace);
                Pcm decoded = source.decode();
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
            Caller.OUTPUT.printf("damaged source: %d packets could not be decoded; silence stands in for them%n", lost);
        }
        Caller.OUTPUT.printf("%.1f s of sound in %.2f s: %.1f times real time; %d bytes, %.1f kbit/s%n", seconds, spent,
                seconds / spent, bytes, bytes * 8 / seconds / 1000);
        Caller.OUTPUT.println("result: " + result);
        return 0;
    }

    private void check(boolean right, String message) {
        if (!right) {
            throw new ParameterException(command.commandLine(), message);
        }
    }

    private static int targetRate(String name, int sourceRate) {
        return name.endsWith(".opus") || name.endsWith(".aac") && !AAC_RATES.contains(sourceRate) ? OPUS_RATE : sourceRate;
    }

    private static void write(Pcm sound, String name, Workspace workspace) throws IOException {
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

    private static void encodeAac(Pcm sound, OutputStream file) throws IOException {
        // One block late for the look-ahead, another for the second half of each block's transform.
        int blocks = blocks(sound.samples(), AAC_BLOCK) + 2;
        byte[] info = new byte[6];
        byte[] unit = new byte[2048 * sound.channels()];
        int rateIndex = AAC_RATES.indexOf(sound.sampleRate());
        long encoder = AACEncoder.open(sound.channels(), sound.sampleRate());
        checkMade(encoder, "AAC");
        try {
            sound.forEachBlock(AAC_BLOCK, blocks, block -> {
                int size = AACEncoder.encode(block, info, unit, encoder);
                if (size > 0) {
                    int length = size + 7;
                    file.write(new byte[] {(byte) 0xff, (byte) 0xf1, (byte) (1 << 6 | rateIndex << 2),
                        (byte) (sound.channels() << 6 | length >> 11), (byte) (length >> 3), (byte) (length << 5 | 0x1f),
                        (byte) 0xfc});
                    file.write(unit, 0, size);
                }
            });
        } finally {
            AACEncoder.close(encoder);
        }
    }

    private static void encodeOpus(Pcm sound, OutputStream file) throws IOException {
        long end = sound.samples() + OPUS_LEAD_IN;
        byte[] packet = new byte[3828];
        OggOpusWriter ogg = new OggOpusWriter(file, sound.channels(), OPUS_LEAD_IN);
        long encoder = NOpusEncoder.open(sound.channels(), OPUS_BITS_PER_SECOND * sound.channels(), 20);
        checkMade(encoder, "Opus");
        try {
            sound.forEachBlock(OPUS_FRAME, blocks(end, OPUS_FRAME), block -> {
                int size = NOpusEncoder.encode(block, packet, encoder);
                if (size <= 1) {
                    throw new Failure("libopus could not encode the sound");
                }
                ogg.write(Arrays.copyOf(packet, size));
            });
        } finally {
            NOpusEncoder.close(encoder);
        }
        ogg.finish(end);
    }

    private static int blocks(long samples, int samplesPerBlock) {
        return Math.toIntExact((samples + samplesPerBlock - 1) / samplesPerBlock);
    }

    private static void checkMade(long encoder, String codec) {
        if (encoder <= 0) {
            throw new Failure("the library could not make an encoder for %s", codec);
        }
    }

    private static Pcm convert(List<String> from, int sampleRate, int channels, Workspace workspace) throws IOException {
        Pcm converted = new Pcm(workspace.path("converted.pcm"), sampleRate, channels);
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
