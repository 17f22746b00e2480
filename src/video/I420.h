#pragma once

// The packed I420 picture: rows of luma, then of U, then of V, without padding. Chroma planes have half the
// width and height, rounded down, so that odd sizes leave a few bytes at the end of the buffer.

#include "bridge/Owners.h"

#include <cstdint>

// Bytes of the buffer of a packed picture; the sizes that FFmpeg decodes stay within 32 bits.
inline int packedPictureSize(int width, int height) {
    return static_cast<int>(int64_t{width} * height * 12 / 8);
}

// Packs an 8-bit 4:2:0 frame into a new buffer of packedPictureSize bytes. A plane that the frame does not
// have is packed as 128; bytes that no plane reaches are 0. Null when there is no memory.
MallocBuffer packPicture(const AVFrame& frame);

// The way back: a packed picture, of the frame's size, into the planes of an 8-bit 4:2:0 frame. The last
// chroma row and column of an odd size stay as they are.
void unpackPicture(const uint8_t* packed, AVFrame& frame);
