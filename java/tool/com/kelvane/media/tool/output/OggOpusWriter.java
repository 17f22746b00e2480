package com.kelvane.media.tool.output;

import java.io.ByteArrayOutputStream;
import java.io.IOException;
import java.io.OutputStream;
import java.nio.ByteBuffer;
import java.nio.ByteOrder;
import java.nio.charset.StandardCharsets;

/**
 * Writes Opus packets of 20 ms into an Ogg stream. FFmpeg's copy out of another container would round the end of the sound
 * to a packet's or a millisecond's.
 */
public final class OggOpusWriter {
    private static final int FIRST_PAGE = 2;
    private static final int LAST_PAGE = 4;
    private static final int MOST_SEGMENTS = 255;
    private static final int SAMPLES_PER_PACKET = 960;
    private static final int[] CHECKSUMS = new int[256];

    static {
        for (int i = 0; i < CHECKSUMS.length; i++) {
            int remainder = i << 24;
            for (int bit = 0; bit < 8; bit++) {
                remainder = remainder << 1 ^ (remainder < 0 ? 0x04c11db7 : 0);
            }
            CHECKSUMS[i] = remainder;
        }
    }

    private final OutputStream file;
    private final ByteArrayOutputStream lengths = new ByteArrayOutputStream();
    private final ByteArrayOutputStream packets = new ByteArrayOutputStream();
    private long position; // samples per channel up to and with the last packet
    private int pages;

    /** @param leadIn samples per channel that players are to drop at the start */
    public OggOpusWriter(OutputStream file, int channels, int leadIn) throws IOException {
        this.file = file;
        append(littleEndian(19).put(ascii("OpusHead")).put((byte) 1).put((byte) channels).putShort((short) leadIn)
                .putInt(48000).array());
        writePage(FIRST_PAGE, 0);
        byte[] vendor = ascii("Kelvane Media");
        append(littleEndian(16 + vendor.length).put(ascii("OpusTags")).putInt(vendor.length).put(vendor).array());
        writePage(0, 0);
    }

    public void write(byte[] packet) throws IOException {
        if (lengths.size() + packet.length / 255 + 1 > MOST_SEGMENTS) {
            writePage(0, position);
        }
        append(packet);
        position += SAMPLES_PER_PACKET;
    }

    /** @param end samples per channel with the lead-in; what the last packet holds beyond is not to be heard */
    public void finish(long end) throws IOException {
        writePage(LAST_PAGE, end);
    }

    private void append(byte[] packet) {
        for (int left = packet.length; left >= 0; left -= 255) {
            lengths.write(Math.min(left, 255));
        }
        packets.writeBytes(packet);
    }

    private void writePage(int flags, long end) throws IOException {
        ByteBuffer page = littleEndian(27 + lengths.size() + packets.size());
        page.put(ascii("OggS")).put((byte) 0).put((byte) flags).putLong(end).putInt(1).putInt(pages++).putInt(0)
                .put((byte) lengths.size()).put(lengths.toByteArray()).put(packets.toByteArray());
        int checksum = 0;
        for (byte value : page.array()) {
            checksum = checksum << 8 ^ CHECKSUMS[checksum >>> 24 ^ value & 0xff];
        }
        file.write(page.putInt(22, checksum).array());
        lengths.reset();
        packets.reset();
    }

    private static ByteBuffer littleEndian(int size) {
        return ByteBuffer.allocate(size).order(ByteOrder.LITTLE_ENDIAN);
    }

    private static byte[] ascii(String text) {
        return text.getBytes(StandardCharsets.US_ASCII);
    }
}
