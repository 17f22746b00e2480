package com.kelvane.media.tool.input;

import com.kelvane.media.AacDecoder;
import com.kelvane.media.Mp3Decoder;
import com.kelvane.media.OpusDecoder;
import com.kelvane.media.Pcm;
import com.kelvane.media.tool.shell.Failure;
import java.util.Optional;
import java.util.function.Function;

/** The library's decoder for one track. */
final class SoundDecoder implements AutoCloseable {
    private final AudioTrack track;
    private final Function<byte[], Optional<Pcm>> decode;
    private final Runnable close;

    /** @param config the AudioSpecificConfig of AAC */
    SoundDecoder(AudioTrack track, byte[] config) {
        this.track = track;
        switch (track.codec()) {
            case "aac" -> {
                AacDecoder decoder = openAac(track, config);
                decode = decoder::decode;
                close = decoder::close;
            }
            case "mp3" -> {
                Mp3Decoder decoder = Mp3Decoder.open();
                decode = decoder::decode;
                close = decoder::close;
            }
            default -> {
                OpusDecoder decoder = OpusDecoder.open(track.channels());
                decode = packet -> packet.length == 0 ? Optional.empty() : decoder.decode(packet);
                close = decoder::close;
            }
        }
    }

    private static AacDecoder openAac(AudioTrack track, byte[] config) {
        try {
            return AacDecoder.open(config);
        } catch (IllegalArgumentException otherAac) {
            throw new Failure("%s has AAC that the decoder does not take: %s", track.file().path(), otherAac.getMessage());
        }
    }

    /** The packet's samples; empty for a bad packet, which one of other channels or another rate than the track's is too. */
    Optional<byte[]> decode(byte[] packet) {
        return decode.apply(packet)
                .filter(pcm -> pcm.channels() == track.channels() && pcm.sampleRate() == track.decodedRate())
                .map(Pcm::bytes);
    }

    @Override
    public void close() {
        close.run();
    }
}
