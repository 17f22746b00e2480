#pragma once

// The packed I420 picture: rows of luma, then of U, then of V, without padding. Chroma planes have half the
// width and height, rounded down, so that odd sizes leave a few bytes at the end of the buffer.

#include "bridge/Owners.h"

#include <cstddef>
#include <cstdint>
#include <utility>

// Bytes of the buffer of a packed picture; the sizes that FFmpeg decodes stay within 32 bits.
inline int packedPictureSize(int width, int height) {
    return static_cast<int>(int64_t{width} * height * 12 / 8);
}

// Hands an 8-bit 4:2:0 frame over as packed, piece by piece: `give(bytes, count, filler)` for each row, or
// for a plane whose rows lie without gaps. A plane that the frame does not have, 128 everywhere, and what no
// plane reaches, 0, have null for `bytes`.
template <class Receiver>
void givePacked(const AVFrame& frame, const Receiver& give) {
    int left = packedPictureSize(frame.width, frame.height);
    for (int plane = 0; plane < 3; ++plane) {
        int width = plane ? frame.width / 2 : frame.width;
        int rows = plane ? frame.height / 2 : frame.height;
        left -= width * rows;
        if (!frame.data[plane] || frame.linesize[plane] == width) width *= std::exchange(rows, 1);
        for (int row = 0; row < rows; ++row)
            give(frame.data[plane] ? frame.data[plane] + ptrdiff_t{row} * frame.linesize[plane] : nullptr,
                 width, uint8_t{128});
    }
    give(nullptr, left, uint8_t{0});
}

// Whether packing leaves no chroma out, and nothing open at the end: an encoder then makes the same of the
// frame's planes as of the packed picture.
inline bool hasWholeChroma(const AVFrame& frame) { return frame.width % 2 == 0 && frame.height % 2 == 0; }

// Packs an 8-bit 4:2:0 frame into a new buffer of packedPictureSize bytes. A plane that the frame does not
// have is packed as 128; bytes that no plane reaches are 0. Null when there is no memory.
MallocBuffer packPicture(const AVFrame& frame);

// The way back: a packed picture, of the frame's size, into the planes of an 8-bit 4:2:0 frame. The last
// chroma row and column of an odd size stay as they are.
void unpackPicture(const uint8_t* packed, AVFrame& frame);
