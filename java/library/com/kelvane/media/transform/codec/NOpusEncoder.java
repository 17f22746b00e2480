package com.kelvane.media.transform.codec;

import com.kelvane.media.NativeLibrary;

/**
 * Encodes PCM at 48000 Hz to Opus packets of 20 ms: music, full bandwidth, highest complexity, constant bit rate, no
 * discontinuous transmission; {@code set} has it otherwise.
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
    /** Setting: what it is for. 2048 for speech, 2049 at first, 2051 for low delay, without speech coding; until the first frame. */
    public static final int APPLICATION = 4000;

    /** Setting: bits per second. */
    public static final int BITRATE = 4002;

    /** Setting: 1 for a variable bit rate. */
    public static final int VBR = 4006;

    /** Setting: 1101 (narrow) to 1105 (full), or -1000 for libopus's choice. */
    public static final int BANDWIDTH = 4008;

    /** Setting: 0 to 10. */
    public static final int COMPLEXITY = 4010;

    /** Setting: 1 to put copies of earlier sound into packets, for losses. */
    public static final int INBAND_FEC = 4012;

    /** Setting: the percentage of packets that are expected to be lost; with 0 there are no copies. */
    public static final int PACKET_LOSS = 4014;

    /** Setting: 1 for discontinuous transmission. */
    public static final int DTX = 4016;

    /** Setting: 1 to have a variable bit rate hold to the target over short times. */
    public static final int VBR_CONSTRAINT = 4020;

    /** Setting: coded channels, 1 or 2, or -1000 for libopus's choice. */
    public static final int FORCE_CHANNELS = 4022;

    /** Setting: 3001 for voice, 3002 for music, or -1000 for libopus's choice. */
    public static final int SIGNAL = 4024;

    /** Setting: 5001 to 5006 for packets, and frames of PCM, of 2.5, 5, 10, 20, 40 or 60 ms. */
    public static final int FRAME_DURATION = 4040;

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
     * Changes a setting, from the next frame on. Their numbers, and those of their values, are libopus's.
     *
     * @param setting one of this class's constants
     * @param value the setting's value
     * @param handle the encoder, or 0
     * @return 1 when libopus took it; 0 when it refused it, for any other setting and for a handle of 0
     */
    public static native int set(int setting, int value, long handle);

    /**
     * Tells a packet of one byte, which discontinuous transmission makes, from a failure.
     *
     * @param handle the encoder, or 0
     * @return the bytes of the last packet, or libopus's error, which is negative; 0 before the first and for a handle of 0
     */
    public static native int packetSize(long handle);

    /**
     * Frees the encoder. The handle is dead afterwards.
     *
     * @param handle the encoder, or 0 for no effect
     */
    public static native void close(long handle);
}
