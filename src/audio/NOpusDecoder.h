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
    // How many more failures to tell of on standard error, where strangers send the packets; negative for
    // all.
    int32_t failureLines = -1;

    void open();

    // An empty packet stands for a lost one, of the longest length. Returns the samples per channel in
    // `output`, or 0 or libopus's error.
    int decode(unsigned char* data, int length);

    // Stands in for so many samples per channel, a multiple of 120, 5760 at most. Returns as decode() does.
    int conceal(int samples);

    // Makes so many lost samples per channel, as many as for conceal(), of the copy in the packet behind
    // them, and what is more than that copy, or all where there is none, by concealment. Returns as decode()
    // does.
    int decodeLost(int samples, const unsigned char* next, int length);

    // Whether a packet has a copy of what is before it.
    static bool carriesFec(const unsigned char* packet, int length);

    void close();

private:
    int deliver(int samples, const int16_t* pcm);
};
