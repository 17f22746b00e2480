package com.kelvane.media;

import com.kelvane.media.transform.codec.NOpusDecoder;
import java.time.Duration;
import java.util.Objects;
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
    private static final int USUAL_PACKET = 960; // 20 ms
    private static final Duration SHORTEST = Duration.ofNanos(2_500_000); // every length is a multiple of it
    private static final Duration LONGEST = Duration.ofMillis(120);
    // A decoder tells once what is wrong with its packets: strangers send them.
    private static final int FAILURES_TOLD = 1;

    private final Engine engine;
    private final SparePcm spare = new SparePcm();
    private final int channels;
    private final byte[] output;
    private int packetSamples = USUAL_PACKET; // of each channel, in the last packet that was decoded

    private OpusDecoder(int channels) {
        this.channels = channels;
        output = new byte[LONGEST_PACKET * Pcm.BYTES_PER_SAMPLE * channels];
        engine = Engine.open("OpusDecoder", () -> openEngine(channels), NOpusDecoder::close);
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

    private static long openEngine(int channels) {
        long handle = NOpusDecoder.open(channels, 0);
        NOpusDecoder.limitFailureLines(FAILURES_TOLD, handle);
        return handle;
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
        long handle = engine.enter("decode");
        try {
            int samples = NOpusDecoder.decode(packet, output, handle);
            packetSamples = samples > 0 ? samples : packetSamples;
            return pcm(samples);
        } finally {
            engine.exit();
        }
    }

    /**
     * Stands in for a lost packet that was as long as the last one that was decoded, or 20 ms before the first.
     *
     * @return so much that fades out from what was heard before; empty when libopus makes none
     * @throws IllegalStateException if this decoder is closed or in use
     */
    public Optional<Pcm> conceal() {
        return conceal(packetSamples);
    }

    /**
     * Stands in for lost packets of a known length.
     *
     * @param duration 2.5 to 120 ms, in steps of 2.5 ms
     * @return so much that fades out from what was heard before; empty when libopus makes none
     * @throws IllegalArgumentException for any other duration
     * @throws IllegalStateException if this decoder is closed or in use
     */
    public Optional<Pcm> conceal(Duration duration) {
        return conceal(samples(duration));
    }

    private static int samples(Duration duration) {
        boolean sane = duration.compareTo(Duration.ZERO) > 0 && duration.compareTo(LONGEST) <= 0;
        if (!sane || duration.toNanos() % SHORTEST.toNanos() != 0) {
            throw new IllegalArgumentException("duration is " + duration + ", allowed are 2.5 to 120 ms in steps of 2.5 ms");
        }
        return (int) (duration.toNanos() * SAMPLE_RATE / Duration.ofSeconds(1).toNanos());
    }

    /**
     * Makes a lost packet, as long as the last one that was decoded, of the copy in the packet behind it: where that
     * {@link #carriesFec}, it is better than {@link #conceal()}, and the same where it does not. To be called before that packet
     * is decoded.
     *
     * @param next the packet behind the lost one
     * @return the sound; empty when {@code next} cannot be decoded
     * @throws IllegalArgumentException if the packet is empty
     * @throws IllegalStateException if this decoder is closed or in use
     */
    public Optional<Pcm> decodeLost(byte[] next) {
        return decodeLost(next, packetSamples);
    }

    /**
     * Makes lost packets of a known length, the last of them of the copy in the packet behind them, the others as
     * {@link #conceal(Duration)} does. Less than the length of that packet is all concealed.
     *
     * @param next the packet behind the lost ones
     * @param duration 2.5 to 120 ms, in steps of 2.5 ms
     * @return the sound; empty when {@code next} cannot be decoded
     * @throws IllegalArgumentException for any other duration, or if the packet is empty
     * @throws IllegalStateException if this decoder is closed or in use
     */
    public Optional<Pcm> decodeLost(byte[] next, Duration duration) {
        return decodeLost(next, samples(duration));
    }

    private Optional<Pcm> decodeLost(byte[] next, int samples) {
        if (next.length == 0) {
            throw new IllegalArgumentException("the packet is empty; conceal() stands in for lost ones");
        }
        long handle = engine.enter("decodeLost");
        try {
            return pcm(NOpusDecoder.decodeLost(samples, next, output, handle));
        } finally {
            engine.exit();
        }
    }

    /**
     * Whether a packet has a copy of the sound before it, for {@link #decodeLost}.
     *
     * @param packet one packet
     * @return whether it has; false for what is no packet of Opus
     */
    public static boolean carriesFec(byte[] packet) {
        Objects.requireNonNull(packet, "packet");
        Natives.load();
        return NOpusDecoder.carriesFec(packet);
    }

    private Optional<Pcm> conceal(int samples) {
        long handle = engine.enter("conceal");
        try {
            return pcm(NOpusDecoder.conceal(samples, output, handle));
        } finally {
            engine.exit();
        }
    }

    private Optional<Pcm> pcm(int samples) {
        return samples <= 0 ? Optional.empty() : Optional.of(
                spare.copyOf(channels, SAMPLE_RATE, output, samples * Pcm.BYTES_PER_SAMPLE * channels));
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
