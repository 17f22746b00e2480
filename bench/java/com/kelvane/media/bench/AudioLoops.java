package com.kelvane.media.bench;

import com.kelvane.media.transform.codec.AACDecoder;
import com.kelvane.media.transform.codec.AACEncoder;
import com.kelvane.media.transform.codec.MPADecoder;
import com.kelvane.media.transform.codec.NOpusDecoder;
import com.kelvane.media.transform.codec.NOpusEncoder;

/** One stream through each sound engine, from open to close, as a server would drive it. Sound is stereo. */
public final class AudioLoops {
    private AudioLoops() {
    }

    public static void decodeAac(byte[] config, byte[][] accessUnits) {
        byte[] info = new byte[5];
        byte[] pcm = new byte[4096];
        long decoder = AACDecoder.open(config);
        for (byte[] accessUnit : accessUnits) {
            AACDecoder.decode(accessUnit, info, pcm, decoder);
        }
        AACDecoder.close(decoder);
    }

    public static void encodeAac(int sampleRate, byte[][] blocks) {
        byte[] info = new byte[6];
        byte[] accessUnit = new byte[4096];
        long encoder = AACEncoder.open(2, sampleRate);
        for (byte[] block : blocks) {
            AACEncoder.encode(block, info, accessUnit, encoder);
        }
        AACEncoder.close(encoder);
    }

    public static void decodeMp3(byte[][] frames) {
        byte[] info = new byte[5];
        byte[] pcm = new byte[4608];
        long decoder = MPADecoder.open();
        for (byte[] frame : frames) {
            MPADecoder.decode(frame, info, pcm, decoder);
        }
        MPADecoder.close(decoder);
    }

    public static void decodeOpus(byte[][] packets) {
        byte[] pcm = new byte[5760 * 4];
        long decoder = NOpusDecoder.open(2, 0);
        for (byte[] packet : packets) {
            NOpusDecoder.decode(packet, pcm, decoder);
        }
        NOpusDecoder.close(decoder);
    }

    public static void encodeOpus(int bitrate, byte[][] frames) {
        byte[] packet = new byte[3828];
        long encoder = NOpusEncoder.open(2, bitrate, 20);
        for (byte[] frame : frames) {
            NOpusEncoder.encode(frame, packet, encoder);
        }
        NOpusEncoder.close(encoder);
    }
}
