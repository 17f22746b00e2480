#include "video/I420.h"

extern "C" {
#include <libavutil/imgutils.h>
}

#include <cstring>

MallocBuffer packPicture(const AVFrame& frame) {
    const auto size = static_cast<size_t>(packedPictureSize(frame.width, frame.height));
    MallocBuffer packed = mallocBuffer(size);
    if (!packed) return packed;
    uint8_t* out = packed.get();
    givePacked(frame, [&out](const uint8_t* bytes, int count, uint8_t filler) {
        const auto length = static_cast<size_t>(count);
        if (bytes)
            std::memcpy(out, bytes, length);
        else
            std::memset(out, filler, length);
        out += count;
    });
    return packed;
}

void unpackPicture(const uint8_t* packed, AVFrame& frame) {
    for (int plane = 0; plane < 3; ++plane) {
        const int width = plane ? frame.width / 2 : frame.width;
        const int rows = plane ? frame.height / 2 : frame.height;
        av_image_copy_plane(frame.data[plane], frame.linesize[plane], packed, width, width, rows);
        packed += ptrdiff_t{width} * rows;
    }
}
