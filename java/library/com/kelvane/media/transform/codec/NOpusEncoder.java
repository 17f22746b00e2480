package com.kelvane.media.transform.codec;

import com.kelvane.media.NativeLibrary;

/**
 * Encodes PCM at 48000 Hz to Opus packets of 20 ms: music, full bandwidth, highest complexity, constant bit rate, no
 * discontinuous transmission.
 *
 * <p>{@code open}, {@code encode} once for each 20 ms of sound, {@code close}:
 * <pre>{@code
 * byte[] packet = new byte[3828];
 * long encoder = NOpusEncoder.open(2, 64000, 20);
 * int bytes = NOpusEncoder.encode(pcm, packet, encoder);         // pcm: 960 stereo samples, 3840 bytes
 * if (bytes > 1) {
 *     send(packet, bytes);
 * }
 * NOpusEncoder.close(encoder);
 * }</pre>
 *
 * <p>Handles, threads, arrays and exceptions: see the {@linkplain com.kelvane.media.transform.codec package}.
 */
public final class NOpusEncoder {
    static {
        NativeLibrary.load();
    }

    private NOpusEncoder() {
    }

    /**
     * Makes an encoder.
     *
     * @param channels channels of the PCM, 1 or 2
     * @param bitrate bits per second; libopus raises less than 500 to that and lowers more than 300000 for each channel
     *        to that. With a rate that it refuses, 0 for instance, the encoder keeps libopus's defaults in all settings
     * @param frameDuration milliseconds of PCM handed to each {@code encode}: 20. Of a longer frame only the first 20
     *        ms are encoded; with a shorter one no frame can be encoded
     * @return the handle; 0 when libopus makes no encoder, because of the channel count for instance, or when there is
     *         no memory
     */
    public static native long open(int channels, int bitrate, int frameDuration);

    /**
     * Encodes one frame.
     *
     * @param input {@code frameDuration * 48} samples per channel of PCM ({@code frameDuration * 96 * channels} bytes);
     *        the excess of a longer array is ignored
     * @param output receives the packet; 3828 bytes always suffice
     * @param handle the encoder, or 0
     * @return the bytes of the packet written to {@code output}, more than 1 from 600 bits per second up; 1 when
     *         libopus failed to encode the frame, {@code output[0]} then being of no meaning; 0 when {@code input} is
     *         shorter than a frame or for a null array; -1 for a handle of 0
     * @throws ArrayIndexOutOfBoundsException if {@code output} is shorter than the packet, which is then lost
     */
    public static native int encode(byte[] input, byte[] output, long handle);

    /**
     * Frees the encoder. The handle is dead afterwards.
     *
     * @param handle the encoder, or 0 for no effect
     */
    public static native void close(long handle);
}
