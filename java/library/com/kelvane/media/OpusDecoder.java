package com.kelvane.media;

import com.kelvane.media.transform.codec.NOpusDecoder;
import java.util.Optional;

/**
 * Decodes Opus packets at 48000 Hz. Packets are decoded as stereo; a mono decoder delivers the left channel.
 * <pre>{@code
 * try (OpusDecoder decoder = OpusDecoder.open(2)) {
 *     decoder.decode(packet).ifPresent(pcm -> play(pcm.bytes()));
 * }
 * }</pre>
 *
 * <p>One thread may use a decoder at a time: anything else is refused with an {@link IllegalStateException}.
 */
public final class OpusDecoder implements AutoCloseable {
    /** The sampling rate of all that is decoded, in Hz. */
    public static final int SAMPLE_RATE = 48_000;

    private static final int LONGEST_PACKET = 5760; // samples of each channel: 120 ms
    private static final byte[] LOST = {};

    private final Engine engine;
    private final SparePcm spare = new SparePcm();
    private final int channels;
    private final byte[] output;

    private OpusDecoder(int channels) {
        this.channels = channels;
        output = new byte[LONGEST_PACKET * Pcm.BYTES_PER_SAMPLE * channels];
        engine = Engine.open("OpusDecoder", () -> NOpusDecoder.open(channels, 0), NOpusDecoder::close);
    }

    /**
     * Makes a decoder for one stream.
     *
     * @param channels 1 for the left channel alone, 2 for stereo
     * @return the decoder, to be closed
     * @throws IllegalArgumentException for any other number
     * @throws MediaException if the native library is missing, with the places tried, or there is no memory
     */
    public static OpusDecoder open(int channels) {
        Settings.check("channels", channels, 1, 2, "channels");
        Natives.load();
        return new OpusDecoder(channels);
    }

    /**
     * Decodes one packet.
     *
     * @param packet one packet
     * @return its samples, at most 120 ms; empty when it could not be decoded
     * @throws IllegalArgumentException if the packet is empty
     * @throws IllegalStateException if this decoder is closed or in use
     */
    public Optional<Pcm> decode(byte[] packet) {
        if (packet.length == 0) {
            throw new IllegalArgumentException("the packet is empty; conceal() stands in for lost ones");
        }
        return decode("decode", packet);
    }

    /**
     * Stands in for lost packets.
     *
     * @return 120 ms that fade out from what was heard before; empty when libopus makes none
     * @throws IllegalStateException if this decoder is closed or in use
     */
    public Optional<Pcm> conceal() {
        return decode("conceal", LOST);
    }

    /**
     * Gives sound back, to be filled again by a following call, which spares the garbage collector an array a call. The
     * caller must not use the sound any more. Any thread may call this at any time.
     *
     * @param pcm sound that this decoder handed out
     */
    public void recycle(Pcm pcm) {
        spare.give(pcm);
    }

    private Optional<Pcm> decode(String operation, byte[] packet) {
        long handle = engine.enter(operation);
        try {
            int samples = NOpusDecoder.decode(packet, output, handle);
            return samples <= 0 ? Optional.empty() : Optional.of(
                    spare.copyOf(channels, SAMPLE_RATE, output, samples * Pcm.BYTES_PER_SAMPLE * channels));
        } finally {
            engine.exit();
        }
    }

    /**
     * Frees the native engine; nothing when that was done before.
     * When another thread uses this decoder, the engine is freed when that call returns.
     *
     * @throws IllegalStateException if it is called from a callback of this decoder
     */
    @Override
    public void close() {
        engine.close();
    }
}
