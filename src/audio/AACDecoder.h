#pragma once

#include "bridge/Owners.h"

#include <cstdint>

// Decodes one raw AAC access unit a call to interleaved 16-bit PCM at the stream's own rate. `config` and
// `configSize` are set before open().
class AudioDecoder {
public:
    int64_t handle = 0;
    ResamplerOwner resampler;       // planar float to interleaved 16 bits
    const AVCodec* codec = nullptr; // null means that no AAC decoder is available
    CodecContextOwner context;
    FrameOwner frame;     // as decoded
    FrameOwner converted; // as 16-bit samples, in `output`
    uint32_t channels = 1;
    uint32_t sampleRate = 16000; // Hz
    uint32_t profile = 0;        // audio object type, 2 for AAC-LC
    int8_t status = 0;           // low 8 bits of the last FFmpeg result; -1 without a decoder
    uint8_t config[32] = {};     // AudioSpecificConfig
    uint8_t configSize = 0;
    uint8_t rateIndex = 8; // sampling frequency index, 0 to 12
    // PCM of the last access unit: 1024 samples in two channels at most. Aligned for the resampler.
    alignas(32) uint8_t output[4096] = {};
    uint16_t outputSize = 0; // bytes

    // A failure shows as `codec` null, or as a decoder that never produces samples.
    void open();

    // Returns the samples per channel in `output`, 0 when there are none.
    int decode(unsigned char* data, int size);

    void close();

private:
    struct Kind {
        int channels, sampleRate, samples, profile;
        bool operator==(const Kind&) const = default;
    };

    void openContext();
    int convert();
    void startAfresh();

    BufferOwner input;   // the packet's memory
    int misfits = 0;     // frames in a row that are not of the configured stream
    Kind misfit{};       // of which the decoder was opened anew
    int freshStarts = 0; // over it, since a frame was of the configured stream
};
