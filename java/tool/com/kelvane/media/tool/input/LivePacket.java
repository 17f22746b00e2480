package com.kelvane.media.tool.input;

/**
 * A packet of a live stream; times are the source's own, in milliseconds, NaN where it has none.
 *
 * @param video whether it is of the pictures, otherwise of the sound
 * @param arrival when it was read, by the clock of {@link System#nanoTime}
 */
public record LivePacket(boolean video, byte[] bytes, double time, double decodingTime, long arrival)
        implements LiveInput.Item {
}
