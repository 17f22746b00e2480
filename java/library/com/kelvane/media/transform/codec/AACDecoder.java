package com.kelvane.media.transform.codec;

import com.kelvane.media.NativeLibrary;

/**
 * Decodes raw AAC-LC access units (no ADTS header), mono or stereo, to PCM at the stream's own sampling rate.
 *
 * <p>{@code open} with the stream's AudioSpecificConfig, {@code decode} once for each access unit in order,
 * {@code close}:
 * <pre>{@code
 * byte[] config = {0x12, 0x10};                      // AAC-LC, 44100 Hz, stereo
 * byte[] info = new byte[5];
 * byte[] pcm = new byte[2 * 2048];                   // exactly channels x 2048 bytes
 * long decoder = AACDecoder.open(config);
 * int samples = AACDecoder.decode(accessUnit, info, pcm, decoder);
 * if (samples > 0) {
 *     play(pcm);
 * }
 * AACDecoder.close(decoder);
 * }</pre>
 *
 * <p>Handles, threads, arrays and exceptions: see the {@linkplain com.kelvane.media.transform.codec package}.
 */
public final class AACDecoder {
    static {
        NativeLibrary.load();
    }

    private AACDecoder() {
    }

    /**
     * Makes a decoder for one stream.
     *
     * @param config the stream's MPEG-4 AudioSpecificConfig, 2 to 32 bytes, with a sampling frequency index of 0 to 12
     *        and a channel configuration of 1 or 2
     * @return the handle; -1 for a configuration shorter than 2 or longer than 32 bytes or with a sampling frequency
     *         index of 13 to 15; 0 when {@code config} is null, FFmpeg has no AAC decoder or there is no memory. A
     *         decoder that FFmpeg fails to set up has a handle too: its {@code decode} always returns 0
     */
    public static native long open(byte[] config);

    /**
     * Decodes one access unit. At most one frame is decoded; further bytes of {@code input} are dropped.
     *
     * @param input one raw AAC access unit
     * @param info 5 bytes or more; after a decoded frame it holds 1, then the samples per channel (4 bytes)
     * @param output exactly {@code channels * 2048} bytes, {@code channels} as in the configuration; receives 1024
     *        samples per channel of PCM
     * @param handle the decoder, or 0
     * @return the samples per channel written to {@code output}, 1024; 0 when nothing was decoded, when the frame does
     *         not have 1024 samples per channel in the configured layout (as with spectral band replication), for a
     *         handle of 0 or for a null array; minus {@code channels * 2048} when {@code output} is shorter or longer
     *         than that, the frame being lost
     * @throws ArrayIndexOutOfBoundsException if {@code info} is shorter than 5 bytes
     */
    public static native int decode(byte[] input, byte[] info, byte[] output, long handle);

    /**
     * Frees the decoder. The handle is dead afterwards.
     *
     * @param handle the decoder, or 0 for no effect
     */
    public static native void close(long handle);
}
