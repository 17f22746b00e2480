#pragma once

#include "bridge/Owners.h"

#include <cstdint>

// Decodes one Opus packet a call to PCM at 48000 Hz. libopus decodes stereo; an engine of one channel
// delivers the left one. `channels` and `fec` are set before open().
class NOpusDecoder {
public:
    int64_t handle = 0;
    OpusDecoderOwner decoder; // null means that open() failed
    int32_t channels = 1;     // 1 or 2
    int32_t fec = 0;          // 0, or 1 to decode every packet's redundant copy of the one before it
    MallocBuffer output;      // PCM of the last packet, low byte first; made by the first decode()
    // How many more failures to tell of on standard error, where strangers send the packets; negative for all.
    int32_t failureLines = -1;

    void open();

    // An empty packet stands for a lost one, of the longest length. Returns the samples per channel in
    // `output`, or 0 or libopus's error.
    int decode(unsigned char* data, int length);

    // Stands in for so many samples per channel, a multiple of 120, 5760 at most. Returns as decode() does.
    int conceal(int samples);

    void close();

private:
    int deliver(int samples, const int16_t* pcm);
};
