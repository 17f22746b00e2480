package com.kelvane.media;

import com.kelvane.media.transform.codec.OpenH264Encoder;
import java.nio.ByteBuffer;
import java.util.Arrays;
import java.util.Objects;
import java.util.Optional;
import java.util.StringJoiner;
import java.util.function.Consumer;

/**
 * Encodes pictures of one size to H.264: Baseline profile, no reordering, a key picture every two seconds of pictures.
 * <pre>{@code
 * try (VideoEncoder encoder = VideoEncoder.builder().size(640, 360).frameRate(30).bitrate(800_000).open()) {
 *     encoder.encode(picture).ifPresent(unit -> send(unit.bytes(), unit.time(), unit.isKey()));
 * }
 * }</pre>
 *
 * <p>The bit rate is a hint: what the encoder holds on to is the quality. For a stream that has to keep to a rate, and for
 * several sizes of one source, use a {@link Transcoder}.
 *
 * <p>After a picture that it failed at the encoder is made anew, see {@link EncoderFailure}.
 *
 * <p>One thread may use an encoder at a time: anything else is refused with an {@link IllegalStateException}.
 */
public final class VideoEncoder implements AutoCloseable {
    private final Engine engine;
    private final int width;
    private final int height;
    private final byte[] info = new byte[7];
    private final byte[] buffer; // for the access unit, which is no longer than a picture
    private final Recovery recovery;
    private final Steering steering = new Steering();
    private volatile ParameterSets parameterSets;

    private VideoEncoder(Builder settings) {
        width = settings.width;
        height = settings.height;
        recovery = new Recovery("VideoEncoder", 0, settings.failureListener);
        buffer = new byte[Picture.size(width, height)];
        engine = Engine.open("VideoEncoder", () -> OpenH264Encoder.openAt(width, height, settings.frameRate, settings.bitrate),
                OpenH264Encoder::close);
    }

    /** {@return a builder with 30 pictures per second} */
    public static Builder builder() {
        return new Builder();
    }

    /**
     * Encodes one picture.
     *
     * @param picture one of the encoder's size; not changed and not kept
     * @return its access unit with the picture's time; empty when the encoder skipped the picture or failed at it, which
     *         {@link Builder#onFailure} tells apart
     * @throws IllegalArgumentException if the picture has another size
     * @throws IllegalStateException if this encoder is closed or in use
     */
    public Optional<AccessUnit> encode(Picture picture) {
        if (picture.width() != width || picture.height() != height) {
            throw new IllegalArgumentException("the picture is " + picture.width() + "x" + picture.height()
                    + ", this encoder takes " + width + "x" + height);
        }
        return encode(Part.of(picture.i420()), picture.time());
    }

    /**
     * Encodes one picture in an array that may hold more.
     *
     * @param i420 holds one picture of the encoder's size as in a {@link Picture}; not changed and not kept
     * @param offset where it begins
     * @param length its bytes, {@link Picture#size}
     * @param time its presentation time, in any unit
     * @return as {@link #encode(Picture)}
     * @throws IllegalArgumentException if {@code length} is another
     * @throws IndexOutOfBoundsException if the array has no such part
     * @throws IllegalStateException if this encoder is closed or in use
     */
    public Optional<AccessUnit> encode(byte[] i420, int offset, int length, long time) {
        return encode(Part.of(i420, offset, length), time);
    }

    /**
     * Encodes one picture in a buffer, see {@link Transcoder#write(ByteBuffer, long, Consumer)}.
     *
     * @param i420 what remains in it is one picture of the encoder's size as in a {@link Picture}, and is taken; its bytes are
     *        not changed and not kept
     * @param time its presentation time, in any unit
     * @return as {@link #encode(Picture)}
     * @throws IllegalArgumentException if another number of bytes remains
     * @throws IllegalStateException if this encoder is closed or in use
     */
    public Optional<AccessUnit> encode(ByteBuffer i420, long time) {
        return encode(Part.of(i420), time);
    }

    private Optional<AccessUnit> encode(Part picture, long time) {
        if (picture.size != buffer.length) {
            throw new IllegalArgumentException("a packed picture of " + width + "x" + height + " has " + buffer.length
                    + " bytes, not " + picture.size);
        }
        long handle = engine.enter("encode");
        try {
            picture.take();
            if (steering.isAsked()) {
                steering.handOver(bits -> OpenH264Encoder.setBitrate(bits, handle) == 1, () -> OpenH264Encoder.requestKey(handle));
            }
            int failure = tryEncoding(picture, handle);
            if (failure == 0) {
                recovery.succeeded();
            } else {
                recovery.recover(failure, () -> OpenH264Encoder.renew(handle) == 1, () -> tryEncoding(picture, handle));
                recovery.tell(handle, time, time);
            }
            int size = ByteBuffer.wrap(info).getInt(1);
            if (size == 0) {
                return Optional.empty();
            }
            parameterSets = ParameterSets.from(parameterSets, buffer, size);
            return Optional.of(new AccessUnit(Arrays.copyOf(buffer, size), time));
        } finally {
            engine.exit();
        }
    }

    /**
     * {@return the parameter sets of the stream, known from its first picture on} It is the same object until they change,
     * as they may with another bit rate; {@link AccessUnit#parameterSets} has those of a key picture. Any thread may ask, at any
     * time.
     */
    public Optional<ParameterSets> parameterSets() {
        return Optional.ofNullable(parameterSets);
    }

    /**
     * Makes the next picture a key picture; several calls before a picture count as one. Any thread may call it at any time.
     *
     * @throws IllegalStateException if this encoder is closed
     */
    public void requestKey() {
        engine.checkOpen("requestKey");
        steering.requestKey();
    }

    /**
     * Sets another target, from the next picture on. FFmpeg's encoder takes one only at its opening; so it is made anew,
     * which costs about as much as encoding a picture: that picture is a key picture, and none is lost. Any thread may call
     * it at any time; of several calls before a picture the last one counts.
     *
     * @param bitsPerSecond 1000 to 288000000
     * @throws IllegalArgumentException if the rate is not allowed
     * @throws IllegalStateException if this encoder is closed
     */
    public void bitrate(int bitsPerSecond) {
        engine.checkOpen("bitrate");
        steering.bitrate(Settings.bitrate(bitsPerSecond));
    }

    // Returns 0 when the encoder took the picture; `info` then has the bytes of its access unit, which `buffer` holds.
    private int tryEncoding(Part picture, long handle) {
        Arrays.fill(info, (byte) 0);
        return OpenH264Encoder.encodePart(picture.array, picture.direct, picture.from, picture.size, buffer, info, handle) == 1 ? 0
                : OpenH264Encoder.failure(handle);
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
        private static final int USUAL_FRAME_RATE = 30;

        private int width;
        private int height;
        private int frameRate = USUAL_FRAME_RATE;
        private int bitrate;
        private Consumer<? super EncoderFailure> failureListener;

        private Builder() {
        }

        /**
         * The size of the pictures, which has to be given. Sides may be odd, where those of a {@link Rendition}, to which
         * pictures are scaled, are even.
         *
         * @param pixelsWide 16 to 8192
         * @param pixelsHigh 16 to 8192; a picture has at most 4096 x 2304 pixels
         * @return this builder
         */
        public Builder size(int pixelsWide, int pixelsHigh) {
            Settings.check("width", pixelsWide, Settings.SMALLEST_SIDE, Settings.LARGEST_SIDE, "pixels");
            Settings.check("height", pixelsHigh, Settings.SMALLEST_SIDE, Settings.LARGEST_SIDE, "pixels");
            if (pixelsWide * pixelsHigh > Settings.LARGEST_AREA) {
                throw new IllegalArgumentException(Settings.wrongArea(pixelsWide, pixelsHigh));
            }
            width = pixelsWide;
            height = pixelsHigh;
            return this;
        }

        /**
         * The rate of the pictures. The encoder takes it at its opening alone; so it cannot follow the pictures' times, as a
         * {@link Rendition} without a rate does.
         *
         * @param picturesPerSecond 1 to 60; 30 unless it is set here
         * @return this builder
         */
        public Builder frameRate(int picturesPerSecond) {
            frameRate = Settings.frameRate(picturesPerSecond);
            return this;
        }

        /**
         * The target, which has to be given.
         *
         * @param bitsPerSecond 1000 to 288000000
         * @return this builder
         */
        public Builder bitrate(int bitsPerSecond) {
            bitrate = Settings.bitrate(bitsPerSecond);
            return this;
        }

        /**
         * Tells of pictures that the encoder failed at.
         *
         * @param listener is called during {@link #encode}, which throws what it throws
         * @return this builder
         */
        public Builder onFailure(Consumer<? super EncoderFailure> listener) {
            failureListener = Objects.requireNonNull(listener, "listener");
            return this;
        }

        /**
         * Makes the encoder.
         *
         * @return the encoder, to be closed
         * @throws IllegalArgumentException if the size or the bit rate was not given
         * @throws MediaException if the native library is missing, with the places tried, or the codec refuses the size
         */
        public VideoEncoder open() {
            StringJoiner missing = new StringJoiner(" and ", "", " must be given");
            missing.setEmptyValue("");
            if (width == 0) {
                missing.add("size");
            }
            if (bitrate == 0) {
                missing.add("bitrate");
            }
            if (missing.length() > 0) {
                throw new IllegalArgumentException(missing.toString());
            }
            Natives.load();
            VideoEncoder encoder = new VideoEncoder(this);
            long handle = encoder.engine.enter("open");
            boolean usable = OpenH264Encoder.status(handle) == 0;
            encoder.engine.exit();
            if (!usable) {
                encoder.close();
                throw new MediaException("OpenH264 refused an encoder of " + width + "x" + height + " with " + bitrate
                        + " bits per second");
            }
            return encoder;
        }
    }
}
