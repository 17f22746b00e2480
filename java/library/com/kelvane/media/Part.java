package com.kelvane.media;

import java.nio.ByteBuffer;
import java.util.Objects;

/**
 * Bytes that an engine is given: a part of an array or of a direct buffer. The native methods check once more that there is
 * such a part, and copy it before they look at it, as other threads may write there.
 */
final class Part {
    final byte[] array; // null for a direct buffer
    final ByteBuffer direct; // null for an array
    final int from;
    final int size;
    private final ByteBuffer source; // of which they are what remained; null for an array
    private final int end; // its position when they are taken

    private Part(byte[] array, ByteBuffer direct, int from, int size, ByteBuffer source, int end) {
        this.array = array;
        this.direct = direct;
        this.from = from;
        this.size = size;
        this.source = source;
        this.end = end;
    }

    static Part of(byte[] bytes) {
        return new Part(bytes, null, 0, bytes.length, null, 0);
    }

    /** @throws IndexOutOfBoundsException if there is no such part */
    static Part of(byte[] bytes, int offset, int length) {
        return new Part(bytes, null, Objects.checkFromIndexSize(offset, length, bytes.length), length, null, 0);
    }

    /** What remains in a buffer. */
    static Part of(ByteBuffer buffer) {
        int position = buffer.position();
        int size = buffer.remaining();
        if (buffer.isDirect()) {
            return new Part(null, buffer, position, size, buffer, position + size);
        }
        if (buffer.hasArray()) {
            return new Part(buffer.array(), null, buffer.arrayOffset() + position, size, buffer, position + size);
        }
        byte[] copy = new byte[size]; // of a read-only buffer's array
        buffer.get(position, copy);
        return new Part(copy, null, 0, size, buffer, position + size);
    }

    byte at(int index) {
        return array == null ? direct.get(from + index) : array[from + index];
    }

    /** The same behind a byte of 0, in an array of their own. */
    Part behindZero() {
        byte[] longer = new byte[size + 1];
        if (array == null) {
            direct.get(from, longer, 1, size);
        } else {
            System.arraycopy(array, from, longer, 1, size);
        }
        return new Part(longer, null, 0, longer.length, source, end);
    }

    /** They are given to an engine: the buffer, if they come from one, has nothing left. */
    Part take() {
        if (source != null) {
            source.position(end);
        }
        return this;
    }
}
