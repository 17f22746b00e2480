#pragma once

#include "bridge/Owners.h"

#include <cstdint>

// Encodes one frame of PCM at 48000 Hz a call to an Opus packet. `channels`, `bitrate` and the frame's length
// are set before open().
class NOpusEncoder {
public:
    int64_t handle = 0;
    OpusEncoderOwner encoder;   // null means that open() failed
    int32_t channels = 1;       // 1 or 2
    int32_t bitrate = 32000;    // bits per second
    int32_t frameDuration = 20; // milliseconds
    int32_t frameSize = 960;    // samples per channel
    MallocBuffer packet;        // made by the first encode()
    int32_t packetSize = 0;     // bytes, or libopus's error

    // A refused setting does not make it fail.
    void open();

    // One of libopus's requests for an encoder, and its value. False when it is refused, or is none of those
    // that are safe at any time.
    bool set(int request, int value);

    // `pcm`: `frameSize` interleaved samples per channel. Returns the bytes in `packet`, or 1 when libopus
    // fails.
    int encode(const short* pcm);

    void close();
};
