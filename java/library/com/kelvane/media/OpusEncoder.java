package com.kelvane.media;

import com.kelvane.media.transform.codec.NOpusEncoder;
import java.time.Duration;
import java.util.Arrays;
import java.util.List;
import java.util.Objects;
import java.util.concurrent.atomic.AtomicReference;
import java.util.function.UnaryOperator;

/**
 * Encodes sound at 48000 Hz to Opus packets: unless it is told otherwise, of 20 ms each, for music, at full bandwidth and a
 * constant bit rate.
 * <pre>{@code
 * try (OpusEncoder encoder = OpusEncoder.builder().channels(2).bitrate(96_000).open()) {
 *     for (byte[] frame : frames) {                  // encoder.frameSize() bytes each
 *         send(encoder.encode(frame));
 *     }
 * }
 * }</pre>
 *
 * <p>For speech over networks that lose packets:
 * <pre>{@code
 * OpusEncoder encoder = OpusEncoder.builder().application(OpusEncoder.Application.VOIP).channels(1).bitrate(32_000)
 *         .rateControl(OpusEncoder.RateControl.CONSTRAINED).fec(true).packetLoss(10).open();
 * ...
 * encoder.packetLoss(report.percentLost());          // any thread, while it runs
 * encoder.bitrate(report.isCongested() ? 16_000 : 32_000);
 * }</pre>
 *
 * <p>The encoder lags behind by {@link #leadIn} samples. One thread may use an encoder at a time: anything else is refused
 * with an {@link IllegalStateException}; {@link #bitrate}, {@link #packetLoss} and {@link #fec} are for any thread.
 */
public final class OpusEncoder implements AutoCloseable {
    /** Samples of each channel in a packet of 20 ms, as there are without {@link Builder#frameDuration}. */
    public static final int SAMPLES_PER_FRAME = 960;

    /** Samples of each channel that precede the sound when it is decoded, but with {@link Application#LOW_DELAY}. */
    public static final int LEAD_IN = 312;

    private static final int LOW_DELAY_LEAD_IN = 120;
    private static final int FRAME_DURATION = 20; // ms, at first
    private static final int LONGEST_PACKET = 3828; // bytes

    /** What a stream is for. */
    public enum Application {
        /**
         * Speech over networks. libopus chooses bandwidth, coded channels and coding by the sound and the bit rate; what it codes
         * as speech can carry copies for lost packets.
         */
        VOIP(2048),
        /** Music at full bandwidth. It is coded as speech, with copies for lost packets, from a {@link #packetLoss} of 9 % on. */
        AUDIO(2049),
        /** As {@link #AUDIO}, with 4 ms less delay, never coded as speech. */
        LOW_DELAY(2051);

        private final int number; // libopus's

        Application(int number) {
            this.number = number;
        }
    }

    /** How the bit rate is held. */
    public enum RateControl {
        /** All packets are of one size. */
        CONSTANT,
        /** Packets are as large as the sound needs; the bit rate is that of usual sound. */
        VARIABLE,
        /** As {@link #VARIABLE}, but close to the bit rate in each short time. */
        CONSTRAINED
    }

    /** What may change while it runs. */
    private record Live(int bitrate, int packetLoss, boolean fec) {
        boolean applyTo(long handle) {
            return set(NOpusEncoder.BITRATE, bitrate, handle) && set(NOpusEncoder.PACKET_LOSS, packetLoss, handle)
                    && set(NOpusEncoder.INBAND_FEC, fec ? 1 : 0, handle);
        }
    }

    private final Engine engine;
    private final int samplesPerFrame;
    private final int frameSize;
    private final int leadIn;
    private final String withoutFec; // why, or null
    private final AtomicReference<Live> asked;
    private Live applied;
    private final byte[] output = new byte[LONGEST_PACKET];

    private OpusEncoder(Builder settings) {
        samplesPerFrame = settings.samplesPerFrame();
        frameSize = samplesPerFrame * Pcm.BYTES_PER_SAMPLE * settings.channels;
        leadIn = settings.application == Application.LOW_DELAY ? LOW_DELAY_LEAD_IN : LEAD_IN;
        withoutFec = settings.withoutFec();
        applied = settings.live;
        asked = new AtomicReference<>(applied);
        engine = Engine.open("OpusEncoder", settings::openEngine, NOpusEncoder::close);
    }

    private static boolean set(int setting, int value, long handle) {
        return NOpusEncoder.set(setting, value, handle) == 1;
    }

    /** {@return a builder for stereo at 96000 bits per second} */
    public static Builder builder() {
        return new Builder();
    }

    /** {@return the bytes that {@link #encode} takes} */
    public int frameSize() {
        return frameSize;
    }

    /** {@return the samples of each channel that {@link #encode} takes} */
    public int samplesPerFrame() {
        return samplesPerFrame;
    }

    /** {@return the samples of each channel that precede the sound when it is decoded} */
    public int leadIn() {
        return leadIn;
    }

    /**
     * Encodes one frame.
     *
     * @param pcm {@link #samplesPerFrame} samples for each channel, {@link #frameSize} bytes as in {@link Pcm}; not changed and
     *         not kept
     * @return the packet; one of a single byte, of discontinuous transmission, need not be sent
     * @throws IllegalArgumentException if {@code pcm} has another length
     * @throws IllegalStateException if this encoder is closed or in use
     * @throws MediaException if libopus fails
     */
    public byte[] encode(byte[] pcm) {
        if (pcm.length != frameSize) {
            throw new IllegalArgumentException("a frame has " + frameSize + " bytes, not " + pcm.length);
        }
        long handle = engine.enter("encode");
        try {
            Live now = asked.get();
            if (now != applied && now.applyTo(handle)) {
                applied = now;
            }
            int size = NOpusEncoder.encode(pcm, output, handle);
            if (size < 1 || size == 1 && NOpusEncoder.packetSize(handle) < 0) {
                throw new MediaException("libopus could not encode a frame");
            }
            return Arrays.copyOf(output, size);
        } finally {
            engine.exit();
        }
    }

    /**
     * Sets another bit rate, from the next packet on. Any thread may call it at any time.
     *
     * @param bitsPerSecond 6000 to 510000
     * @throws IllegalArgumentException if the rate is not allowed
     * @throws IllegalStateException if this encoder is closed
     */
    public void bitrate(int bitsPerSecond) {
        int checked = Builder.checkedBitrate(bitsPerSecond);
        change("bitrate", live -> new Live(checked, live.packetLoss, live.fec));
    }

    /**
     * Tells how many packets are lost, from the next packet on: the more, the more of the bits make packets independent of
     * those before them, and go into copies if there are such. Any thread may call it at any time.
     *
     * @param percent 0 to 100
     * @throws IllegalArgumentException if there cannot be so many
     * @throws IllegalStateException if this encoder is closed
     */
    public void packetLoss(int percent) {
        int checked = Builder.checkedLoss(percent);
        change("packetLoss", live -> new Live(live.bitrate, checked, live.fec));
    }

    /**
     * Puts copies of earlier sound into packets or no more, from the next packet on, see {@link Builder#fec}. Any thread may
     * call it at any time.
     *
     * @param copies whether to
     * @throws IllegalStateException if this encoder is closed, or cannot have copies as its application is
     *         {@link Application#LOW_DELAY} or its packets are shorter than 10 ms
     */
    public void fec(boolean copies) {
        if (copies && withoutFec != null) {
            throw new IllegalStateException("OpusEncoder.fec: " + withoutFec);
        }
        change("fec", live -> new Live(live.bitrate, live.packetLoss, copies));
    }

    private void change(String operation, UnaryOperator<Live> change) {
        engine.checkOpen(operation);
        asked.updateAndGet(change);
    }

    /**
     * Frees the native engine; nothing when that was done before.
     * When another thread uses this encoder, the engine is freed when that call returns.
     *
     * @throws IllegalStateException if it is called from a callback of this encoder
     */
    @Override
    public void close() {
        engine.close();
    }

    /** Collects an encoder's settings. */
    public static final class Builder {
        private static final int SMALLEST_BITRATE = 6000;
        private static final int LARGEST_BITRATE = 510_000;
        private static final int HIGHEST_COMPLEXITY = 10;
        private static final int LIBOPUS_CHOOSES = -1000;
        private static final int FIRST_DURATION = 5001; // libopus's number of the first of these
        private static final List<Duration> DURATIONS = List.of(Duration.ofNanos(2_500_000), Duration.ofMillis(5),
                Duration.ofMillis(10), Duration.ofMillis(20), Duration.ofMillis(40), Duration.ofMillis(60));
        private static final Duration SHORTEST_SPEECH = Duration.ofMillis(10);

        private int channels = 2;
        private Application application = Application.AUDIO;
        private RateControl rateControl = RateControl.CONSTANT;
        private Duration duration = Duration.ofMillis(FRAME_DURATION);
        private int complexity = HIGHEST_COMPLEXITY;
        private boolean dtx;
        private Live live = new Live(96_000, 0, false);

        private Builder() {
        }

        /**
         * The channels of the sound.
         *
         * @param count 1 or 2
         * @return this builder
         */
        public Builder channels(int count) {
            channels = Settings.check("channels", count, 1, 2, "channels");
            return this;
        }

        /**
         * The bit rate.
         *
         * @param bitsPerSecond 6000 to 510000
         * @return this builder
         */
        public Builder bitrate(int bitsPerSecond) {
            live = new Live(checkedBitrate(bitsPerSecond), live.packetLoss, live.fec);
            return this;
        }

        private static int checkedBitrate(int bitsPerSecond) {
            return Settings.check("bitrate", bitsPerSecond, SMALLEST_BITRATE, LARGEST_BITRATE, "bits per second");
        }

        /**
         * What the stream is for.
         *
         * @param purpose {@link Application#AUDIO} if nothing is said
         * @return this builder
         */
        public Builder application(Application purpose) {
            application = Objects.requireNonNull(purpose, "purpose");
            return this;
        }

        /**
         * How the bit rate is held.
         *
         * @param control {@link RateControl#CONSTANT} if nothing is said
         * @return this builder
         */
        public Builder rateControl(RateControl control) {
            rateControl = Objects.requireNonNull(control, "control");
            return this;
        }

        /**
         * The length of a packet, and of the frames that {@link OpusEncoder#encode} takes.
         *
         * @param length 2.5, 5, 10, 20, 40 or 60 ms
         * @return this builder
         */
        public Builder frameDuration(Duration length) {
            if (!DURATIONS.contains(length)) {
                throw new IllegalArgumentException("frameDuration is " + length + ", allowed are 2.5, 5, 10, 20, 40 and 60 ms");
            }
            duration = length;
            return this;
        }

        /**
         * How much time libopus may take for a packet.
         *
         * @param level 0 to 10, which it is if nothing is said
         * @return this builder
         */
        public Builder complexity(int level) {
            complexity = Settings.check("complexity", level, 0, HIGHEST_COMPLEXITY, "steps");
            return this;
        }

        /**
         * Discontinuous transmission: over silence, packets of a single byte that need not be sent.
         *
         * @param silenceLeftOut whether to; not if nothing is said
         * @return this builder
         */
        public Builder dtx(boolean silenceLeftOut) {
            dtx = silenceLeftOut;
            return this;
        }

        /**
         * Puts a copy of earlier sound, of a lower quality, into a packet ({@link OpusDecoder#decodeLost}). libopus does so where it
         * codes as speech, where the bit rate has room for it, and where {@link #packetLoss} tells of losses.
         *
         * @param copies whether to; not if nothing is said
         * @return this builder
         */
        public Builder fec(boolean copies) {
            live = new Live(live.bitrate, live.packetLoss, copies);
            return this;
        }

        /**
         * How many packets are expected to be lost.
         *
         * @param percent 0, as if nothing is said, to 100
         * @return this builder
         */
        public Builder packetLoss(int percent) {
            live = new Live(live.bitrate, checkedLoss(percent), live.fec);
            return this;
        }

        private static int checkedLoss(int percent) {
            return Settings.check("packetLoss", percent, 0, 100, "per cent");
        }

        private int samplesPerFrame() {
            return (int) (duration.toNanos() * OpusDecoder.SAMPLE_RATE / Duration.ofSeconds(1).toNanos());
        }

        /** Why there cannot be copies; null when there can. */
        private String withoutFec() {
            return application == Application.LOW_DELAY ? "there are no copies with LOW_DELAY, which never codes as speech"
                    : duration.compareTo(SHORTEST_SPEECH) < 0 ? "there are no copies in packets shorter than 10 ms" : null;
        }

        /** {@return the handle; 0 when libopus makes no encoder or refuses a setting} */
        private long openEngine() {
            long handle = NOpusEncoder.open(channels, live.bitrate, FRAME_DURATION);
            boolean taken = set(NOpusEncoder.APPLICATION, application.number, handle)
                    && set(NOpusEncoder.VBR, rateControl == RateControl.CONSTANT ? 0 : 1, handle)
                    && set(NOpusEncoder.VBR_CONSTRAINT, rateControl == RateControl.CONSTRAINED ? 1 : 0, handle)
                    && set(NOpusEncoder.DTX, dtx ? 1 : 0, handle)
                    && set(NOpusEncoder.COMPLEXITY, complexity, handle)
                    && set(NOpusEncoder.FRAME_DURATION, FIRST_DURATION + DURATIONS.indexOf(duration), handle)
                    && (application != Application.VOIP || set(NOpusEncoder.SIGNAL, LIBOPUS_CHOOSES, handle)
                    && set(NOpusEncoder.BANDWIDTH, LIBOPUS_CHOOSES, handle)
                    && set(NOpusEncoder.FORCE_CHANNELS, LIBOPUS_CHOOSES, handle))
                    && live.applyTo(handle);
            if (!taken) {
                NOpusEncoder.close(handle);
            }
            return taken ? handle : 0;
        }

        /**
         * Makes the encoder.
         *
         * @return the encoder, to be closed
         * @throws IllegalArgumentException if copies were asked for, and the application is {@link Application#LOW_DELAY} or the
         *         packets are shorter than 10 ms
         * @throws MediaException if the native library is missing, with the places tried, or libopus makes no encoder
         */
        public OpusEncoder open() {
            if (live.fec && withoutFec() != null) {
                throw new IllegalArgumentException(withoutFec());
            }
            Natives.load();
            return new OpusEncoder(this);
        }
    }
}
