package com.kelvane.media;

import java.util.Arrays;
import java.util.Objects;
import java.util.concurrent.atomic.AtomicReference;

/**
 * Sound that was given back, for the next result of its shape: the record too, which beside so short a call as a frame of
 * AAC costs more than its few bytes suggest. Any thread may use it at any time.
 */
final class SparePcm {
    private final AtomicReference<Pcm> spare = new AtomicReference<>();

    void give(Pcm pcm) {
        spare.set(Objects.requireNonNull(pcm, "pcm"));
    }

    /** {@return sound of this shape, with any content} */
    Pcm take(int channels, int sampleRate, int size) {
        Pcm recycled = recycled(channels, sampleRate, size);
        return recycled != null ? recycled : new Pcm(channels, sampleRate, new byte[size]);
    }

    /** {@return sound of the first bytes of an array} */
    Pcm copyOf(int channels, int sampleRate, byte[] array, int size) {
        Pcm recycled = recycled(channels, sampleRate, size);
        if (recycled == null) {
            return new Pcm(channels, sampleRate, Arrays.copyOf(array, size));
        }
        System.arraycopy(array, 0, recycled.bytes(), 0, size);
        return recycled;
    }

    private Pcm recycled(int channels, int sampleRate, int size) {
        Pcm recycled = spare.getAndSet(null);
        return recycled != null && recycled.channels() == channels && recycled.sampleRate() == sampleRate
                && recycled.bytes().length == size ? recycled : null;
    }
}
