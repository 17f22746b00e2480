package com.kelvane.media.tool;

import com.kelvane.media.transform.codec.AACDecoder;
import com.kelvane.media.transform.codec.MPADecoder;
import com.kelvane.media.transform.codec.NOpusDecoder;
import java.nio.ByteBuffer;

/** The library's decoder for one track. */
final class SoundDecoder implements AutoCloseable {
    private final String codec;
    private final long handle;
    private final byte[] info = new byte[5];
    private final byte[] pcm;

    /** @param config the AudioSpecificConfig of AAC */
    SoundDecoder(AudioTrack track, byte[] config) {
        codec = track.codec();
        switch (codec) {
            case "aac" -> {
                pcm = new byte[2048 * track.channels()];
                handle = AACDecoder.open(config);
            }
            case "mp3" -> {
                pcm = new byte[2304 * track.channels()];
                handle = MPADecoder.open();
            }
            default -> {
                pcm = new byte[11520 * track.channels()];
                handle = NOpusDecoder.open(track.channels(), 0);
            }
        }
        if (handle <= 0) {
            throw new Failure("%s: the library could not make a decoder for this %s", track.file().path(), codec);
        }
    }

    /** Leaves the packet's samples at the start of {@link #pcm}; returns how many for each channel, 0 for a bad packet. */
    int decode(byte[] packet) {
        switch (codec) {
            case "aac":
                return Math.max(0, AACDecoder.decode(packet, info, pcm, handle));
            case "mp3":
                info[0] = 0;
                MPADecoder.decode(packet, info, pcm, handle);
                return info[0] == 1 ? ByteBuffer.wrap(info).getInt(1) : 0;
            default:
                return Math.max(0, NOpusDecoder.decode(packet, pcm, handle));
        }
    }

    byte[] pcm() {
        return pcm;
    }

    @Override
    public void close() {
        switch (codec) {
            case "aac" -> AACDecoder.close(handle);
            case "mp3" -> MPADecoder.close(handle);
            default -> NOpusDecoder.close(handle);
        }
    }
}
