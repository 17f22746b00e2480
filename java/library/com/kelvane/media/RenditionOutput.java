package com.kelvane.media;

import com.kelvane.media.transform.codec.MIRVProcessor;
import java.time.Duration;
import java.util.concurrent.atomic.AtomicBoolean;
import java.util.concurrent.atomic.AtomicReference;
import java.util.function.Consumer;
import java.util.function.UnaryOperator;

/**
 * One rendition of a transcoder at work. One thread encodes at a time; the transcoder's hands out the pictures; any other may
 * ask for changes, which are made at the next picture, and read the figures.
 */
final class RenditionOutput {
    private static final int NOT_OPENED = 2;
    private static final int SIZE_REFUSED = 5; // by OpenH264, of a picture
    private static final float FIRST_RATE = 30; // pictures per second of an encoder that is told no rate

    private final int index;
    private final Recovery recovery;
    // Handed over from other threads.
    private final AtomicReference<Rendition> asked;
    private final AtomicBoolean keyAsked = new AtomicBoolean();
    private volatile boolean paused;
    private volatile boolean removed;

    private Rendition rendition; // as the encoder has it
    private PictureRate rate = new PictureRate(FIRST_RATE);
    private boolean keyOwed; // asked for, and not yet encoded

    boolean busy; // some thread encodes; ParallelEncoding's

    private volatile ParameterSets parameterSets; // null before the first picture
    private volatile long pictures;
    private volatile long skipped;
    private volatile long failed;
    private volatile long totalBytes;
    private volatile long totalNanoseconds;

    RenditionOutput(int index, Rendition rendition, Consumer<? super EncoderFailure> listener) {
        this.index = index;
        this.rendition = rendition;
        asked = new AtomicReference<>(rendition);
        recovery = new Recovery("Transcoder", index, listener);
    }

    /** The settings that were asked for last. */
    Rendition rendition() {
        return asked.get();
    }

    /** Any thread: changes the settings of the next picture. */
    void ask(UnaryOperator<Rendition> change) {
        asked.updateAndGet(change);
    }

    /** Any thread: asks for a key picture. */
    void askForKey() {
        keyAsked.set(true);
    }

    /** Any thread: whether the rendition gets no pictures; the first one behind a pause is a key picture. */
    void pause(boolean pausing) {
        if (!pausing && paused) {
            keyAsked.set(true);
        }
        paused = pausing;
    }

    /** Any thread: null before the first picture. */
    ParameterSets parameterSets() {
        return parameterSets;
    }

    boolean isRemoved() {
        return removed;
    }

    /** Frees the encoder, for good. */
    void remove(long transcoder) {
        removed = true;
        MIRVProcessor.releaseOutput(index, transcoder);
    }

    /** Opens the encoder of a rendition that came later. */
    void start(long transcoder) {
        apply(transcoder);
        MIRVProcessor.startOutput(index, transcoder);
        checkOpened(transcoder);
    }

    /** Hands the settings to the transcoder. Ids begin at 1; they follow the positions. */
    void apply(long transcoder) {
        set("videoWidth", rendition.width(), transcoder);
        set("videoHeight", rendition.height(), transcoder);
        set("videoBR", rendition.bitrate(), transcoder);
        set("videoFPS", rendition.frameRate(), transcoder);
        set("videoKey", rendition.keyInterval(), transcoder);
        set("videoEncMode", rendition.rateControl() == Rendition.RateControl.QUALITY ? 1 : 0, transcoder);
        set("videoEncProfile", rendition.entropyCoding() == Rendition.EntropyCoding.CABAC ? 1 : 0, transcoder);
        set("videoQPMin", rendition.smallestQuantiser(), transcoder);
        set("videoQPMax", rendition.largestQuantiser(), transcoder);
    }

    private void set(String key, int value, long transcoder) {
        MIRVProcessor.apply(index + 1, key, Integer.toString(value), transcoder);
    }

    /** @throws MediaException if the encoder was refused */
    void checkOpened(long transcoder) {
        int status = MIRVProcessor.status(index, transcoder);
        if (status != 0 && status != NOT_OPENED) {
            throw new MediaException("OpenH264 " + (status < 0 ? "refused the settings of" : "made no encoder for")
                    + " rendition " + (index + 1) + ", " + rendition);
        }
    }

    boolean isAtWork() {
        return !paused && !removed;
    }

    /** {@return pixels of a picture} The source's size is taken for the largest. */
    long area() {
        Rendition size = rendition();
        return size.isSourceSize() ? Long.MAX_VALUE : (long) size.width() * size.height();
    }

    /** Takes over what was asked for up to now, for a picture. */
    void steer(Encoding encoding) {
        encoding.asked = asked.get();
        encoding.key |= keyAsked.get() && keyAsked.getAndSet(false);
    }

    // The encoder is not at work.
    private void apply(Encoding encoding, long milliseconds, long transcoder) {
        Rendition changed = encoding.asked;
        if (changed != rendition) {
            if (changed.bitrate() != rendition.bitrate()
                    && MIRVProcessor.setBitrate(index, changed.bitrate(), transcoder) == 0) {
                changed = changed.bitrate(rendition.bitrate()); // refused, and asked for again at the next picture
            }
            if (changed.frameRate() != rendition.frameRate()) {
                float told = changed.frameRate() > 0 ? changed.frameRate() : FIRST_RATE;
                MIRVProcessor.setFrameRate(index, told, transcoder);
                rate = new PictureRate(told);
            }
            rendition = changed;
        }
        float measured = rendition.frameRate() > 0 ? 0 : rate.next(milliseconds);
        if (measured > 0) {
            MIRVProcessor.setFrameRate(index, measured, transcoder);
        }
        if (encoding.key) {
            keyOwed = true;
            // A rendition of the source's size opens its encoder at its first picture, a key picture anyway.
            MIRVProcessor.requestKey(index, transcoder);
        }
        encoding.rendition = rendition;
    }

    /**
     * Scales and encodes a picture.
     *
     * @param place where the native transcoder keeps it; negative when it is the one at hand
     */
    void encode(Encoding encoding, int place, long time, long milliseconds, long transcoder) {
        apply(encoding, milliseconds, transcoder);
        long begin = System.nanoTime();
        int failure = tryEncoding(encoding, place, transcoder);
        if (failure == 0) {
            recovery.succeeded();
        } else {
            encoding.thrown = refusedSize(failure, transcoder);
            if (recovery.recover(failure, () -> MIRVProcessor.renew(index, transcoder) == 1,
                    () -> tryEncoding(encoding, place, transcoder))) {
                failure = 0;
            }
            encoding.failure = recovery.take(time);
        }
        encoding.nanoseconds = System.nanoTime() - begin;
        totalNanoseconds += encoding.nanoseconds;
        if (encoding.size > 0) {
            pictures++;
            totalBytes += encoding.size;
            encoding.encodedAs = MIRVProcessor.encodedAs(index, transcoder);
            encoding.askedFor = keyOwed && EncodedPicture.type(encoding.encodedAs) == EncodedPicture.Type.IDR;
            keyOwed &= !encoding.askedFor;
        } else if (failure == 0) {
            skipped++;
        } else {
            failed++;
        }
    }

    // Returns 0 when the encoder took the picture, whether or not it skipped it.
    private int tryEncoding(Encoding encoding, int place, long transcoder) {
        byte[] bytes = encoding.bytes;
        int encoded = place < 0 ? MIRVProcessor.encodeInto(index, bytes, transcoder)
                : MIRVProcessor.encodeKept(index, place, bytes, transcoder);
        if (encoded > bytes.length) {
            encoding.bytes = new byte[encoded + encoded / 4];
            MIRVProcessor.copyEncoded(index, encoding.bytes, transcoder);
        }
        encoding.size = encoded;
        return encoded > 0 ? 0 : MIRVProcessor.failure(index, transcoder);
    }

    // OpenH264 takes settings for sizes that it then fails to encode.
    private MediaException refusedSize(int failure, long transcoder) {
        boolean refused = rendition.isSourceSize() && pictures + skipped + failed == 0
                && (failure == SIZE_REFUSED || MIRVProcessor.status(index, transcoder) != 0);
        return refused ? new MediaException("OpenH264 does not encode pictures of the source's size, which rendition "
                + (index + 1) + " is to have; sides of 16 pixels and more are encoded") : null;
    }

    /** Tells of a picture that the encoder failed at. */
    void tellFailure(Encoding encoding, long transcoder, long milliseconds) {
        if (encoding.failure != null) {
            recovery.tell(encoding.failure, transcoder, milliseconds);
        }
    }

    /**
     * Hands an encoded picture, if there is one, to a receiver.
     *
     * @param written when its access unit was written, of {@link System#nanoTime}
     */
    void deliver(Encoding encoding, long time, long written, Consumer<? super EncodedPicture> receiver) {
        if (encoding.size == 0) {
            return;
        }
        ParameterSets before = parameterSets;
        if (EncodedPicture.type(encoding.encodedAs) == EncodedPicture.Type.IDR) {
            parameterSets = ParameterSets.from(before, encoding.bytes, encoding.size);
        }
        EncodedPicture picture = new EncodedPicture(encoding, index, time, System.nanoTime() - written,
                parameterSets == before ? null : parameterSets);
        try {
            receiver.accept(picture);
        } finally {
            picture.invalidate();
        }
    }

    Transcoder.RenditionStatistics statistics() {
        return new Transcoder.RenditionStatistics(rendition(), pictures, skipped, failed, totalBytes,
                Duration.ofNanos(totalNanoseconds));
    }
}
