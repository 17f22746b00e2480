package com.kelvane.media.transform.codec;

import com.kelvane.media.NativeLibrary;

/**
 * Changes the sampling rate and the channels of PCM. The result begins when the input does, and has as many samples as
 * the input lasts, less than one sample more or fewer.
 *
 * <p>{@code open}, {@code convert} with pieces of any length in order, {@code drain}, {@code close}:
 * <pre>{@code
 * byte[] output = new byte[8192];
 * long resampler = PcmResampler.open(2, 44100, 2, 48000);
 * int samples = PcmResampler.convert(pcm, output, resampler);
 * if (samples < 0) {
 *     output = new byte[-samples];
 *     samples = PcmResampler.convert(pcm, output, resampler);
 * }
 * play(output, samples * 2 * 2);
 * PcmResampler.close(resampler);
 * }</pre>
 *
 * <p>Handles, threads, arrays and exceptions: see the {@linkplain com.kelvane.media.transform.codec package}.
 */
public final class PcmResampler {
    static {
        NativeLibrary.load();
    }

    private PcmResampler() {
    }

    /**
     * Makes a resampler for one stream.
     *
     * @param channels channels of what comes in, 1 or 2
     * @param sampleRate its rate, 7350 to 192000 Hz
     * @param resultChannels channels of what comes out: one becomes two alike, two become their mean
     * @param resultSampleRate its rate, 7350 to 192000 Hz
     * @return the handle; 0 for anything else, and when there is no memory
     */
    public static native long open(int channels, int sampleRate, int resultChannels, int resultSampleRate);

    /**
     * Converts a piece of the stream. Its last samples may come out with the next piece.
     *
     * @param input PCM; what is left of a sample at its end is ignored
     * @param output receives the result
     * @param handle the resampler, or 0
     * @return the samples per channel written to {@code output}, of which there may be 0; 0 too when FFmpeg fails, for a null
     *         array and for a handle of 0; minus the bytes that always suffice when {@code output} has fewer, nothing having
     *         been converted; {@code Integer.MIN_VALUE} when no array has so many
     */
    public static native int convert(byte[] input, byte[] output, long handle);

    /**
     * Ends the stream: what is left comes out. Another one of the same kind may follow.
     *
     * @param output receives the result
     * @param handle the resampler, or 0
     * @return as {@code convert}
     */
    public static native int drain(byte[] output, long handle);

    /**
     * Frees the resampler. The handle is dead afterwards.
     *
     * @param handle the resampler, or 0 for no effect
     */
    public static native void close(long handle);
}
