package com.kelvane.media;

import java.util.Arrays;
import java.util.Objects;

/**
 * A decoded picture in packed I420: {@code height} rows of {@code width} bytes of Y, then {@code height / 2} rows of
 * {@code width / 2} bytes of U, then as many of V, divisions rounded down; 8 bits a sample, nothing between rows or
 * planes. Where a side is odd, the planes end before the array does.
 *
 * @param width in pixels, 1 to 65535
 * @param height in pixels, 1 to 65535
 * @param time presentation time, in any unit
 * @param i420 the samples, {@link #size size(width, height)} bytes; not copied
 */
public record Picture(int width, int height, long time, byte[] i420) {
    private static final int LARGEST_SIDE = 65_535;

    /**
     * A picture over an array.
     *
     * @param width in pixels
     * @param height in pixels
     * @param time in any unit
     * @param i420 the samples; not copied
     * @throws IllegalArgumentException if a side is not allowed or the array is not as long as the picture
     */
    public Picture {
        Objects.requireNonNull(i420, "i420");
        if (i420.length != size(width, height)) {
            throw new IllegalArgumentException("a packed picture of " + width + "x" + height + " has " + size(width, height)
                    + " bytes, not " + i420.length);
        }
    }

    /**
     * The length of a packed picture.
     *
     * @param width in pixels, 1 to 65535
     * @param height in pixels, 1 to 65535
     * @return {@code width * height * 12 / 8} bytes
     * @throws IllegalArgumentException if a side is not allowed or the picture would be longer than an array
     */
    public static int size(int width, int height) {
        if (width < 1 || height < 1 || width > LARGEST_SIDE || height > LARGEST_SIDE) {
            throw new IllegalArgumentException("picture size is " + width + "x" + height + ", allowed are 1 to "
                    + LARGEST_SIDE + " pixels a side");
        }
        long bytes = (long) width * height * 12 / 8;
        if (bytes > Integer.MAX_VALUE - 8) {
            throw new IllegalArgumentException("a packed picture of " + width + "x" + height + " is longer than an array");
        }
        return (int) bytes;
    }

    /**
     * {@return whether the other is one with the same components, the array's content among them} As with a
     * {@link java.nio.ByteBuffer}, that and the hash code change with what is written to the array.
     */
    @Override
    public boolean equals(Object other) {
        return other instanceof Picture picture && width == picture.width && height == picture.height && time == picture.time
                && Arrays.equals(i420, picture.i420);
    }

    @Override
    public int hashCode() {
        return Objects.hash(width, height, time, Arrays.hashCode(i420));
    }
}
