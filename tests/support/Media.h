#pragma once

extern "C" {
#include <libavcodec/avcodec.h>
}

#include "video/AVCDecoder.h"

#include <cstdint>
#include <string>
#include <vector>

using Bytes = std::vector<uint8_t>;

Bytes readFile(const std::string& path);

// The access units of an Annex-B vector in tests/data, each starting with 00 00 00 01.
std::vector<Bytes> accessUnits(const std::string& name);

// An access unit of one grey picture of any size that OpenH264 takes.
Bytes keyPicture(uint32_t width, uint32_t height);

int decode(VideoDecoder& decoder, Bytes unit, uint32_t time = 0);

struct Picture {
    int width;
    int height;
    int format;         // AVPixelFormat of the decoder
    int64_t accessUnit; // which one carried the picture
    Bytes i420;         // packed; chroma halves rounded down
};

// Decodes with FFmpeg's own calls, to the end of the stream: what the engines are compared with. Pictures
// that are not 8-bit 4:2:0 go through libswscale.
std::vector<Picture> referenceDecode(const std::vector<Bytes>& units);

// Peak signal-to-noise ratio in dB over the first `count` bytes (the luma plane, say).
double psnr(const Bytes& a, const Bytes& b, size_t count);

// NAL unit types in order.
std::vector<int> nalTypes(const Bytes& accessUnit);
