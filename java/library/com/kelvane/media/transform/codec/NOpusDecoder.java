package com.kelvane.media.transform.codec;

import com.kelvane.media.NativeLibrary;

/**
 * Decodes Opus packets to PCM at 48000 Hz. Every packet is decoded as stereo; a mono decoder delivers its left channel.
 *
 * <p>{@code open}, {@code decode} once for each packet in order, {@code close}. An empty array stands for a lost packet
 * and yields concealment samples.
 * <pre>{@code
 * byte[] pcm = new byte[5760 * 2 * 2];               // 120 ms of stereo, the longest result
 * long decoder = NOpusDecoder.open(2, 0);
 * int samples = NOpusDecoder.decode(packet, pcm, decoder);
 * if (samples > 0) {
 *     play(pcm, samples * 2 * 2);
 * }
 * NOpusDecoder.close(decoder);
 * }</pre>
 *
 * <p>Handles, threads, arrays and exceptions: see the {@linkplain com.kelvane.media.transform.codec package}.
 */
public final class NOpusDecoder {
    static {
        NativeLibrary.load();
    }

    private NOpusDecoder() {
    }

    /**
     * Makes a decoder for one stream.
     *
     * @param channels 1 for the left channel alone, 2 for interleaved stereo
     * @param fec 0 to decode each packet itself; 1 to have every {@code decode} return 5760 samples per channel of loss
     *        concealment, ending in the packet's redundant copy of the previous frame where it carries one; with any
     *        other value every {@code decode} fails
     * @return the handle; 0 for any other channel count, when libopus makes no decoder or when there is no memory
     */
    public static native long open(int channels, int fec);

    /**
     * Decodes one packet.
     *
     * @param input one Opus packet; empty for a lost one
     * @param output receives {@code samples * channels * 2} bytes of PCM; {@code 11520 * channels} bytes always suffice
     * @param handle the decoder, or 0
     * @return the samples per channel written to {@code output}, 5760 at most; 0 when the packet could not be decoded
     *         (the next one is decoded normally) or for a null array; -1 for a handle of 0; minus the bytes needed when
     *         {@code output} is shorter, the packet's samples being lost
     */
    public static native int decode(byte[] input, byte[] output, long handle);

    /**
     * Stands in for lost sound of a length of the caller's choice; an empty packet given to {@link #decode} stands for
     * 120 ms.
     *
     * @param samples per channel: a multiple of 120 (2.5 ms), 5760 at most
     * @param output as for {@code decode}
     * @param handle the decoder, or 0
     * @return {@code samples}, which were written to {@code output}; 0 for any other number, when libopus fails, for a null
     *         array and for a handle of 0; minus the bytes needed when {@code output} is shorter
     */
    public static native int conceal(int samples, byte[] output, long handle);

    /**
     * Makes lost sound of the copy that the packet behind it carries; to be called before that packet is decoded. What is
     * longer than the copy, and all where there is none, is concealed as by {@code conceal}.
     *
     * @param samples per channel, as for {@code conceal}
     * @param next the packet behind the lost one; an empty one has no copy
     * @param output as for {@code decode}
     * @param handle the decoder, or 0
     * @return as {@code conceal}; 0 also when {@code next} cannot be decoded
     */
    public static native int decodeLost(int samples, byte[] next, byte[] output, long handle);

    /**
     * Whether a packet carries a copy of the sound before it.
     *
     * @param packet one Opus packet
     * @return whether it does; false for null and for what is no packet
     */
    public static native boolean carriesFec(byte[] packet);

    /**
     * Limits what the decoder writes to standard error: a line for each packet that cannot be decoded, which is a line for
     * whoever sends packets.
     *
     * @param lines how many more are written; a negative number, as at first, for all
     * @param handle the decoder, or 0 for no effect
     */
    public static native void limitFailureLines(int lines, long handle);

    /**
     * Frees the decoder. The handle is dead afterwards.
     *
     * @param handle the decoder, or 0 for no effect
     */
    public static native void close(long handle);
}
