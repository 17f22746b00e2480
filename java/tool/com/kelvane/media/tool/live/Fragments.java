package com.kelvane.media.tool.live;

import java.io.ByteArrayOutputStream;
import java.io.DataInputStream;
import java.io.EOFException;
import java.io.IOException;
import java.io.InputStream;
import java.io.OutputStream;
import java.nio.charset.StandardCharsets;

/** Splits a fragmented MP4 stream into what a player is to know first, and its fragments. */
final class Fragments {
    private static final String FRAGMENT = "moof";
    private static final String CONTENTS = "mdat";
    private static final int BOX_HEADER = 8; // bytes

    private final DataInputStream stream;
    private final byte[] chunk = new byte[1 << 14];
    private int size;    // of the box whose header was read last
    private String type; // empty at the end, null when the next header is still to be read

    Fragments(InputStream stream) {
        this.stream = new DataInputStream(stream);
    }

    private void readHeader() throws IOException {
        try {
            size = stream.readInt();
            type = new String(stream.readNBytes(4), StandardCharsets.ISO_8859_1);
        } catch (EOFException end) {
            type = "";
        }
    }

    private void copyBox(OutputStream to) throws IOException {
        if (size < BOX_HEADER) {
            throw new IOException("an MP4 box of " + size + " bytes");
        }
        to.write(new byte[] {(byte) (size >> 24), (byte) (size >> 16), (byte) (size >> 8), (byte) size});
        to.write(type.getBytes(StandardCharsets.ISO_8859_1));
        for (int left = size - BOX_HEADER; left > 0;) {
            int part = stream.read(chunk, 0, Math.min(left, chunk.length));
            if (part < 0) {
                throw new EOFException("an MP4 box ends too early");
            }
            to.write(chunk, 0, part);
            left -= part;
        }
    }

    /** The boxes before the first fragment; to be called first. */
    byte[] initialisation() throws IOException {
        ByteArrayOutputStream boxes = new ByteArrayOutputStream();
        for (readHeader(); !type.equals(FRAGMENT) && !type.isEmpty(); readHeader()) {
            copyBox(boxes);
        }
        return boxes.toByteArray();
    }

    /** Copies the next fragment, up to its last byte; false at the end. What follows is not waited for. */
    boolean copyNext(OutputStream to) throws IOException {
        if (type == null) {
            readHeader();
        }
        while (!type.isEmpty()) {
            boolean last = type.equals(CONTENTS);
            copyBox(to);
            if (last) {
                type = null;
                return true;
            }
            readHeader();
        }
        return false;
    }
}
