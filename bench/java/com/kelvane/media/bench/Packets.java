package com.kelvane.media.bench;

import java.io.BufferedOutputStream;
import java.io.DataOutputStream;
import java.io.IOException;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.List;

/** A stream's packets, in memory and in a file that the floor reads: each behind its size, four bytes, the highest first. */
record Packets(Path file, List<byte[]> list) {
    static Packets write(Path file, List<byte[]> list) throws IOException {
        try (DataOutputStream out = new DataOutputStream(new BufferedOutputStream(Files.newOutputStream(file)))) {
            for (byte[] packet : list) {
                out.writeInt(packet.length);
                out.write(packet);
            }
        }
        return new Packets(file, list);
    }

    static Packets read(Path file) throws IOException {
        List<byte[]> list = new ArrayList<>();
        java.nio.ByteBuffer all = java.nio.ByteBuffer.wrap(Files.readAllBytes(file));
        while (all.hasRemaining()) {
            byte[] packet = new byte[all.getInt()];
            all.get(packet);
            list.add(packet);
        }
        return new Packets(file, list);
    }
}
