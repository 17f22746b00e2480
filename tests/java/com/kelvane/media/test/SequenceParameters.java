package com.kelvane.media.test;

/**
 * What an H.264 sequence parameter set says of pictures of 8 bits without scaling matrices.
 *
 * @param shapeWidth width of a pixel, by its height; 1 to 1 where nothing is said
 */
record SequenceParameters(int width, int height, int shapeWidth, int shapeHeight) {
    private static final int[][] SHAPES = {{1, 1}, {1, 1}, {12, 11}, {10, 11}, {16, 11}, {40, 33}, {24, 11}, {20, 11}, {32, 11},
            {80, 33}, {18, 11}, {15, 11}, {64, 33}, {160, 99}, {4, 3}, {3, 2}, {2, 1}};
    private static final int EXTENDED_SHAPE = 255;

    private static final class Bits {
        private final byte[] bytes;
        private int at;

        /** @param unit a NAL unit, with the bytes that keep start codes out of it */
        Bits(byte[] unit) {
            bytes = new byte[unit.length];
            int length = 0;
            for (int i = 1; i < unit.length; i++) {
                if (i < 3 || unit[i] != 3 || unit[i - 1] != 0 || unit[i - 2] != 0) {
                    bytes[length++] = unit[i];
                }
            }
        }

        int take(int count) {
            int value = 0;
            for (int i = 0; i < count; i++, at++) {
                value = value << 1 | bytes[at >> 3] >> 7 - (at & 7) & 1;
            }
            return value;
        }

        int golomb() {
            int zeros = 0;
            while (take(1) == 0) {
                zeros++;
            }
            return (1 << zeros) - 1 + take(zeros);
        }
    }

    /** @param configuration avcC, of which the first set is read */
    static SequenceParameters of(byte[] configuration) {
        byte[] unit = new byte[(configuration[6] & 0xff) << 8 | configuration[7] & 0xff];
        System.arraycopy(configuration, 8, unit, 0, unit.length);
        Bits bits = new Bits(unit);
        int profile = bits.take(8);
        bits.take(16);
        bits.golomb();
        if (profile >= 100) {
            if (bits.golomb() != 1 || bits.golomb() != 0 || bits.golomb() != 0 || bits.take(1) != 0 || bits.take(1) != 0) {
                throw new IllegalArgumentException("avcC: pictures of another kind than 4:2:0 with 8 bits");
            }
        }
        bits.golomb();
        int order = bits.golomb();
        if (order == 0) {
            bits.golomb();
        } else if (order == 1) {
            throw new IllegalArgumentException("avcC: pictures are in an order that is not understood here");
        }
        bits.golomb();
        bits.take(1);
        int width = 16 * (bits.golomb() + 1);
        int rows = 16 * (bits.golomb() + 1);
        boolean frames = bits.take(1) == 1;
        int height = frames ? rows : 2 * rows;
        if (!frames) {
            bits.take(1);
        }
        bits.take(1);
        if (bits.take(1) == 1) {
            width -= 2 * (bits.golomb() + bits.golomb());
            height -= (frames ? 2 : 4) * (bits.golomb() + bits.golomb());
        }
        int[] shape = {1, 1};
        if (bits.take(1) == 1 && bits.take(1) == 1) {
            int known = bits.take(8);
            shape = known == EXTENDED_SHAPE ? new int[] {bits.take(16), bits.take(16)} : SHAPES[known];
        }
        return new SequenceParameters(width, height, Math.max(1, shape[0]), Math.max(1, shape[1]));
    }
}
