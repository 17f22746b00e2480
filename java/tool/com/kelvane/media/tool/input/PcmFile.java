package com.kelvane.media.tool.input;

import com.kelvane.media.tool.shell.Progress;
import java.io.IOException;
import java.io.InputStream;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.Arrays;
import java.util.List;

/**
 * A file of interleaved 16-bit samples.
 *
 * @param sampleRate in Hz
 */
public record PcmFile(Path path, int sampleRate, int channels) {
    public static final int BYTES_PER_SAMPLE = 2;

    /** Takes one block of samples. */
    public interface Consumer {
        void accept(byte[] block) throws IOException;
    }

    public long samples() throws IOException {
        return Files.size(path) / (BYTES_PER_SAMPLE * channels);
    }

    public double seconds() throws IOException {
        return (double) samples() / sampleRate;
    }

    /** How FFmpeg is told to read the file. */
    public List<String> asInput() {
        return List.of("-f", "s16le", "-ar", Integer.toString(sampleRate), "-ac", Integer.toString(channels),
                "-i", path.toString());
    }

    /** Hands on the samples in so many blocks of the same size; behind the end they are silent. */
    public void forEachBlock(int samples, int count, Consumer consumer) throws IOException {
        byte[] block = new byte[samples * channels * BYTES_PER_SAMPLE];
        try (InputStream input = Files.newInputStream(path); Progress progress = new Progress(count)) {
            for (int i = 0; i < count; i++) {
                int read = input.readNBytes(block, 0, block.length);
                Arrays.fill(block, read, block.length, (byte) 0);
                consumer.accept(block);
                progress.update(i + 1, 0, 1000L * (i + 1) * samples / sampleRate);
            }
        }
    }
}
