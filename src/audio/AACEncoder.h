#pragma once

#include "bridge/Owners.h"

#include <cstdint>

// Encodes one block of 1024 samples per channel a call to a raw AAC-LC access unit. `channels` and
// `sampleRate` are set before open().
class AudioEncoder {
public:
    int64_t handle = 0;
    ResamplerOwner resampler;       // interleaved 16 bits to planar float
    const AVCodec* codec = nullptr; // null means that no AAC encoder is available
    CodecContextOwner context;
    MallocBuffer output;        // the last access unit; made by the first encode()
    int32_t outputSize = 0;     // bytes; 0 when the last call gave none
    int32_t bitrate = 64000;    // bits per second
    int32_t channels = 1;       // 1 or 2
    int32_t sampleRate = 44100; // Hz
    int32_t channelLayout = AV_CH_LAYOUT_MONO;
    int32_t result = 0; // FFmpeg's last
    FrameOwner frame;   // the block as planar float

    // A failure shows as `codec` null, or as an encoder that never produces an access unit.
    void open();

    // `pcm`: 1024 interleaved samples per channel. Returns the bytes in `output`, 0 when there are none.
    int encode(const short* pcm);

    void close();
};
