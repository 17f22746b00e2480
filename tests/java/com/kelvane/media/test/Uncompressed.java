package com.kelvane.media.test;

import com.kelvane.media.Picture;
import java.io.ByteArrayOutputStream;
import java.io.IOException;
import java.io.OutputStream;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.Arrays;
import java.util.Random;

/** Pictures, and H.264 access units that hold them as they are: a key picture of I_PCM macroblocks. */
public final class Uncompressed {
    private static final int MACROBLOCK = 16;
    private static final byte[] START_CODE = {0, 0, 0, 1};

    private Uncompressed() {
    }

    public static Picture grey(int width, int height, long time) {
        byte[] samples = new byte[Picture.size(width, height)];
        Arrays.fill(samples, (byte) 128);
        return new Picture(width, height, time, samples);
    }

    /** Full-range noise: every value alike, or the two extremes alone, which take the most bits. */
    public static Picture noise(int width, int height, long time, boolean twoValued) {
        byte[] samples = new byte[Picture.size(width, height)];
        new Random(time).nextBytes(samples);
        for (int i = 0; i < samples.length; i++) { // none is 0, so that nothing looks like a start code
            samples[i] = (byte) ((twoValued ? samples[i] >> 7 : samples[i]) | 1);
        }
        return new Picture(width, height, time, samples);
    }

    /** Writes a stream of 64x48: 50 grey pictures, 3 of noise, 50 grey ones. */
    public static void main(String[] arguments) throws IOException {
        try (OutputStream stream = Files.newOutputStream(Path.of(arguments[0]))) {
            for (int i = 0; i < 103; i++) {
                stream.write(accessUnit(i / 50 == 1 && i < 53 ? noise(64, 48, 40 * i, true) : grey(64, 48, 40 * i)));
            }
        }
    }

    public static byte[] accessUnit(Picture picture) {
        int columns = (picture.width() + MACROBLOCK - 1) / MACROBLOCK;
        int rows = (picture.height() + MACROBLOCK - 1) / MACROBLOCK;
        ByteArrayOutputStream unit = new ByteArrayOutputStream();

        Bits parameters = new Bits(0x67).bits(66, 8).bits(0xC0, 8).bits(51, 8) // constrained baseline, level 5.1
                .ue(0).ue(0).ue(2).ue(1).bits(0, 1) // frame numbers of 4 bits, output in decoding order, one reference
                .ue(columns - 1).ue(rows - 1).bits(0b11, 2);
        int right = (columns * MACROBLOCK - picture.width()) / 2;
        int bottom = (rows * MACROBLOCK - picture.height()) / 2;
        parameters.bits(1, 1).ue(0).ue(right).ue(0).ue(bottom).bits(0, 1).end(unit);
        new Bits(0x68).ue(0).ue(0).bits(0, 2).ue(0).ue(0).ue(0).bits(0, 3).bits(0b111, 3).bits(0, 3).end(unit);

        Bits slice = new Bits(0x65).ue(0).ue(7).ue(0).bits(0, 4).ue((int) (picture.time() / 40 % 2)).bits(0, 2);
        slice.bits(0b1, 1); // the quantiser is that of the parameter set
        for (int macroblock = 0; macroblock < columns * rows; macroblock++) {
            slice.ue(25).align();
            int x = macroblock % columns * MACROBLOCK;
            int y = macroblock / columns * MACROBLOCK;
            slice.block(picture, 0, picture.width(), picture.height(), x, y, MACROBLOCK);
            int luma = picture.width() * picture.height();
            for (int plane = 0; plane < 2; plane++) {
                slice.block(picture, luma + plane * luma / 4, picture.width() / 2, picture.height() / 2, x / 2, y / 2,
                        MACROBLOCK / 2);
            }
        }
        slice.end(unit);
        return unit.toByteArray();
    }

    /** One NAL unit in the making. */
    private static final class Bits {
        private final ByteArrayOutputStream bytes = new ByteArrayOutputStream();
        private int current;
        private int count;

        private Bits(int header) {
            bytes.write(header);
        }

        private Bits bits(int value, int size) {
            for (int i = size - 1; i >= 0; i--) {
                current = current << 1 | value >> i & 1;
                if (++count == 8) {
                    bytes.write(current);
                    count = 0;
                }
            }
            return this;
        }

        private Bits ue(int value) {
            int size = 32 - Integer.numberOfLeadingZeros(value + 1);
            return bits(0, size - 1).bits(value + 1, size);
        }

        private void align() {
            bits(0, -count & 7);
        }

        private void block(Picture picture, int plane, int width, int height, int left, int top, int side) {
            for (int row = 0; row < side; row++) {
                for (int column = 0; column < side; column++) {
                    bytes.write(picture.i420()[plane + Math.min(top + row, height - 1) * width
                            + Math.min(left + column, width - 1)]);
                }
            }
        }

        private void end(ByteArrayOutputStream unit) {
            bits(1, 1).align();
            unit.writeBytes(START_CODE);
            unit.writeBytes(bytes.toByteArray());
        }
    }
}
