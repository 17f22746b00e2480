#pragma once

#include "bridge/Owners.h"

#include <cstdint>

// Decodes one MP3 frame a call to 16-bit PCM at the stream's own rate and channel count.
class MP3AudioDecoder {
public:
    static constexpr uint16_t initialCapacity = 8192; // bytes; the largest MP3 frame has 4608

    int64_t handle = 0;
    const AVCodec* codec = nullptr;
    CodecContextOwner context;
    FrameOwner frame;
    int32_t channels = 2;                                // of the last frame
    int32_t sampleRate = 48000;                          // Hz, of the last frame
    MallocBuffer output = zeroedBuffer(initialCapacity); // PCM of the last frame
    uint16_t capacity = output ? initialCapacity : 0;    // bytes of `output`
    int8_t status = -1;      // 0 open; otherwise the low 8 bits of FFmpeg's error, -1 without a decoder
    uint16_t outputSize = 0; // bytes of PCM

    // Leaves its outcome in `status`.
    void open();

    // Returns the samples per channel in `output`, 0 when there are none.
    int decode(unsigned char* data, int length);

    void close();

private:
    bool takeFrame();

    BufferOwner input; // the packet's memory
};
