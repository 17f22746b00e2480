#pragma once

#include <cstddef>
#include <cstdint>

// Room behind the bitstream buffers of an OpenH264 encoder. They hold as many bytes as the picture has
// samples. Its CAVLC looks at their end; its CABAC does not (read in 2.3.1 and 2.6.0), and noise at a fine
// quantiser takes more: what lay behind them was overwritten. With room for the most that CABAC can write,
// such a picture fails when its bits are put into a NAL unit, as it does with CAVLC, and nothing else
// changes.
//
// OpenH264 has no setting for that, so its memory is what is taken hold of. It takes all of it from malloc,
// in InitializeExt, on the calling thread; its import of malloc is led here, and stays so. Blocks of the
// buffers' size that it takes while a BitstreamRoom lives on the thread come out longer, all others as
// before. The room is address space alone until something is written there.
class BitstreamRoom {
public:
    // `code`: a function of the library; `width` and `height` in pixels, of the encoder to be initialised.
    BitstreamRoom(const void* code, uint32_t width, uint32_t height);
    ~BitstreamRoom();
    BitstreamRoom(const BitstreamRoom&) = delete;
    BitstreamRoom& operator=(const BitstreamRoom&) = delete;

    // Whether the encoder that was initialised meanwhile has room behind its buffers.
    bool given() const;

    // What `asked` bytes are made for the library.
    size_t extended(size_t asked);

private:
    size_t pictureSize; // in bytes, of whole macroblocks
    int buffers = 0;
    bool active;
};
