package com.kelvane.media;

import com.kelvane.media.transform.codec.MPADecoder;
import java.nio.ByteBuffer;
import java.util.Objects;
import java.util.Optional;

/**
 * Decodes MP3 frames (MPEG audio layer III, one or two channels).
 * <pre>{@code
 * try (Mp3Decoder decoder = Mp3Decoder.open()) {
 *     decoder.decode(frame).ifPresent(pcm -> play(pcm.channels(), pcm.sampleRate(), pcm.bytes()));
 * }
 * }</pre>
 *
 * <p>One thread may use a decoder at a time: anything else is refused with an {@link IllegalStateException}.
 */
public final class Mp3Decoder implements AutoCloseable {
    private static final int HEADER_SIZE = 4;
    private static final int LONGEST_FRAME = 1152 * 2 * Pcm.BYTES_PER_SAMPLE; // bytes of PCM
    private static final int MONO = 3;
    private static final int[] MPEG_1_RATES = {44_100, 48_000, 32_000};

    private final Engine engine;
    private final SparePcm spare = new SparePcm();
    private final byte[] info = new byte[5];
    private final byte[] output = new byte[LONGEST_FRAME];

    private Mp3Decoder() {
        engine = Engine.open("Mp3Decoder", MPADecoder::open, MPADecoder::close);
    }

    /**
     * {@return a new decoder, to be closed}
     *
     * @throws MediaException if the native library is missing, with the places tried, or there is no memory
     */
    public static Mp3Decoder open() {
        Natives.load();
        return new Mp3Decoder();
    }

    /**
     * Decodes one frame. Frames refer back to earlier ones, so that the first of a cut stream may give silence.
     *
     * @param frame one frame with its header
     * @return its samples with the channels and the sampling rate of its header; empty when it could not be decoded
     * @throws IllegalStateException if this decoder is closed or in use
     */
    public Optional<Pcm> decode(byte[] frame) {
        Objects.requireNonNull(frame, "frame");
        long handle = engine.enter("decode");
        try {
            info[0] = 0;
            MPADecoder.decode(frame, info, output, handle);
            if (info[0] != 1 || frame.length < HEADER_SIZE) {
                return Optional.empty();
            }
            int channels = (frame[3] >> 6 & 3) == MONO ? 1 : 2;
            int size = ByteBuffer.wrap(info).getInt(1) * channels * Pcm.BYTES_PER_SAMPLE;
            return size > LONGEST_FRAME ? Optional.empty()
                    : Optional.of(spare.copyOf(channels, sampleRate(frame), output, size));
        } finally {
            engine.exit();
        }
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

    // MPEG-2 and MPEG-2.5 halve the rates of MPEG-1.
    private static int sampleRate(byte[] frame) {
        int version = frame[1] >> 3 & 3;
        int index = Math.min(frame[2] >> 2 & 3, MPEG_1_RATES.length - 1);
        return MPEG_1_RATES[index] >> (version == 3 ? 0 : version == 2 ? 1 : 2);
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
