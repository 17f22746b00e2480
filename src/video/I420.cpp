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
    for (int plane = 0; plane < 3; ++plane) {
        const auto width = static_cast<size_t>(plane ? frame.width / 2 : frame.width);
        const int rows = plane ? frame.height / 2 : frame.height;
        for (int row = 0; row < rows; ++row, out += width) {
            if (frame.data[plane])
                std::memcpy(out, frame.data[plane] + ptrdiff_t{row} * frame.linesize[plane], width);
            else
                std::memset(out, 128, width);
        }
    }
    std::memset(out, 0, static_cast<size_t>(packed.get() + size - out));
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
