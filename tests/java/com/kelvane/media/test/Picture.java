package com.kelvane.media.test;

import com.kelvane.media.transform.codec.AVCDecoder;
import com.kelvane.media.transform.codec.OpenH264Encoder;
import java.io.IOException;
import java.nio.ByteBuffer;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.Arrays;
import java.util.stream.Stream;

/** Uses the public API as an application does, and tells where the native library was loaded from. */
public final class Picture implements Runnable {
    private static final int SIDE = 64;
    private static final byte GREY = 100;

    public static void main(String[] arguments) throws IOException {
        encodeAndDecode();
        try (Stream<String> memoryMap = Files.lines(Path.of("/proc/self/maps"))) {
            memoryMap.filter(line -> line.contains("/libkelvane_media.so") && line.contains("r-xp"))
                    .forEach(line -> System.out.println("loaded " + line.substring(line.indexOf('/'))));
        }
    }

    @Override
    public void run() {
        encodeAndDecode();
    }

    /** Sends a grey picture through FFmpeg, OpenH264 and back; fails unless it comes out grey. */
    private static void encodeAndDecode() {
        byte[] picture = new byte[SIDE * SIDE * 12 / 8];
        byte[] info = new byte[7];
        Arrays.fill(picture, GREY);
        long encoder = OpenH264Encoder.open(SIDE, SIDE, 30, 1_000_000, 0);
        int encoded = OpenH264Encoder.encode(picture, info, encoder);
        OpenH264Encoder.close(encoder);
        byte[] accessUnit = Arrays.copyOf(picture, ByteBuffer.wrap(info).getInt(1));

        byte[] decoded = new byte[picture.length];
        long decoder = AVCDecoder.open();
        int result = AVCDecoder.decode(accessUnit, new byte[6], decoded, decoder);
        AVCDecoder.close(decoder);
        if (encoded != 1 || result != 1 || Math.abs(decoded[SIDE * SIDE / 2] - GREY) > 2) {
            throw new IllegalStateException("encoder " + encoded + ", decoder " + result);
        }
    }
}
