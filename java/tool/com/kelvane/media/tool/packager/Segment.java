package com.kelvane.media.tool.packager;

/**
 * What one segment holds.
 *
 * @param begin the decoding time of its first unit in seconds, as its {@code tfdt} says
 * @param seconds that its units take
 * @param bytes its contents
 */
public record Segment(double begin, double seconds, byte[] bytes) {
}
