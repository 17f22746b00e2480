package com.kelvane.media;

import java.util.concurrent.atomic.AtomicReference;

/** An array that was given back, for the next result of its size. Any thread may use it at any time. */
final class SpareArray {
    private static final byte[] EMPTY = {};

    private final AtomicReference<byte[]> spare = new AtomicReference<>(EMPTY);

    void give(byte[] array) {
        spare.set(array);
    }

    /** {@return an array of this size, with any content} */
    byte[] take(int size) {
        byte[] recycled = spare.getAndSet(EMPTY);
        return recycled.length == size ? recycled : new byte[size];
    }
}
