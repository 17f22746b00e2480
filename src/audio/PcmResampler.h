#pragma once

#include "bridge/Owners.h"

#include <cstdint>

// Changes the sampling rate and the channels, one or two, of 16-bit PCM. A stream may come in pieces of any
// length: what a piece cannot give yet comes with the next one. `input` and `result` are set before open().
class PcmResampler {
public:
    struct Format {
        int32_t channels = 1;                      // 1 or 2
        int32_t sampleRate = 48000;                // Hz
        int bytes() const { return channels * 2; } // of a sample of every channel
    };

    int64_t handle = 0;
    ResamplerOwner resampler; // null means that open() failed
    Format input, result;
    MallocBuffer output; // PCM of the last call
    size_t capacity = 0; // bytes of `output`

    void open();

    // The most bytes that convert() makes of so many samples per channel.
    int64_t room(int samples) const;

    // Returns the samples per channel in `output`. No `pcm` is the end of the stream: what is left comes out,
    // and another stream may follow. 0 also when FFmpeg fails.
    int convert(const uint8_t* pcm, int samples);

    void close();
};
