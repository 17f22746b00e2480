package com.kelvane.media.tool.live;

import java.io.ByteArrayOutputStream;
import java.io.DataInputStream;
import java.io.IOException;
import java.io.InputStream;
import java.nio.ByteBuffer;
import java.nio.charset.StandardCharsets;

/** Splits a fragmented MP4 stream into what a player is to know first, and its fragments. */
final class Fragments {
    private static final String FRAGMENT = "moof";
    private static final String CONTENTS = "mdat";
    private static final int BOX_HEADER = 8; // bytes

    private final DataInputStream stream;
    private ByteBuffer next; // a box that was read ahead; null at the end

    Fragments(InputStream stream) throws IOException {
        this.stream = new DataInputStream(stream);
        next = box();
    }

    private ByteBuffer box() throws IOException {
        byte[] header = stream.readNBytes(BOX_HEADER);
        if (header.length < BOX_HEADER) {
            return null;
        }
        int size = ByteBuffer.wrap(header).getInt();
        if (size < BOX_HEADER) {
            throw new IOException("an MP4 box of " + size + " bytes");
        }
        byte[] box = new byte[size];
        System.arraycopy(header, 0, box, 0, BOX_HEADER);
        stream.readFully(box, BOX_HEADER, size - BOX_HEADER);
        return ByteBuffer.wrap(box);
    }

    private static String type(ByteBuffer box) {
        return new String(box.array(), 4, 4, StandardCharsets.ISO_8859_1);
    }

    /** The boxes before the first fragment. */
    byte[] initialisation() throws IOException {
        ByteArrayOutputStream boxes = new ByteArrayOutputStream();
        for (; next != null && !type(next).equals(FRAGMENT); next = box()) {
            boxes.write(next.array());
        }
        return boxes.toByteArray();
    }

    /** The next fragment; null at the end. It is complete when its last byte has come: nothing that follows is waited for. */
    byte[] next() throws IOException {
        ByteArrayOutputStream boxes = new ByteArrayOutputStream();
        ByteBuffer box = next != null ? next : box();
        next = null;
        for (; box != null; box = box()) {
            boxes.write(box.array());
            if (type(box).equals(CONTENTS)) {
                return boxes.toByteArray();
            }
        }
        return null;
    }
}
