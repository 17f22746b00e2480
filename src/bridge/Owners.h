#pragma once

// One typed owner for each kind of resource that the engines hold. Those whose release runs a codec's own
// code let no exception out of it: what was still to be released is lost then.

#include "bridge/Exceptions.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/buffer.h>
#include <libavutil/frame.h>
#include <libavutil/mem.h>
#include <libswresample/swresample.h>
#include <libswscale/swscale.h>
}

#include <dlfcn.h>
#include <opus.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

struct FreeDeleter {
    void operator()(void* memory) const { std::free(memory); }
};
using MallocBuffer = std::unique_ptr<uint8_t[], FreeDeleter>;

// At least one byte, so that null always means that there is no memory.
inline MallocBuffer mallocBuffer(size_t size) {
    return MallocBuffer(static_cast<uint8_t*>(std::malloc(size ? size : 1)));
}

inline MallocBuffer zeroedBuffer(size_t size) {
    return MallocBuffer(static_cast<uint8_t*>(std::calloc(1, size)));
}

struct CodecContextDeleter {
    void operator()(AVCodecContext* context) const {
        completes([&] { avcodec_free_context(&context); });
    }
};
using CodecContextOwner = std::unique_ptr<AVCodecContext, CodecContextDeleter>;

// As avcodec_open2; -1 when the codec's own code throws.
inline int openCodec(const CodecContextOwner& context, const AVCodec* codec) {
    return resultOr(-1, [&] { return avcodec_open2(context.get(), codec, nullptr); });
}

struct FrameDeleter {
    void operator()(AVFrame* frame) const {
        completes([&] { av_frame_free(&frame); });
    }
};
using FrameOwner = std::unique_ptr<AVFrame, FrameDeleter>;

struct BufferDeleter {
    void operator()(AVBufferRef* buffer) const { av_buffer_unref(&buffer); }
};
using BufferOwner = std::unique_ptr<AVBufferRef, BufferDeleter>;

// A frame whose planes were made by av_image_alloc: one block, which av_frame_free knows nothing of.
struct ImageFrameDeleter {
    void operator()(AVFrame* frame) const {
        av_freep(&frame->data[0]);
        FrameDeleter()(frame);
    }
};
using ImageFrameOwner = std::unique_ptr<AVFrame, ImageFrameDeleter>;

struct PacketDeleter {
    void operator()(AVPacket* packet) const { av_packet_free(&packet); }
};
using PacketOwner = std::unique_ptr<AVPacket, PacketDeleter>;

struct FilterDeleter {
    void operator()(AVBSFContext* filter) const { av_bsf_free(&filter); }
};
using FilterOwner = std::unique_ptr<AVBSFContext, FilterDeleter>;

// One over callbacks of ours; FFmpeg may have put another buffer in the place of the first.
struct StreamDeleter {
    void operator()(AVIOContext* stream) const {
        av_freep(&stream->buffer);
        avio_context_free(&stream);
    }
};
using StreamOwner = std::unique_ptr<AVIOContext, StreamDeleter>;

// A format whose stream is owned apart from it, and lives longer.
struct FormatDeleter {
    void operator()(AVFormatContext* format) const { avformat_free_context(format); }
};
using FormatOwner = std::unique_ptr<AVFormatContext, FormatDeleter>;

struct ScalerDeleter {
    void operator()(SwsContext* scaler) const { sws_freeContext(scaler); }
};
using ScalerOwner = std::unique_ptr<SwsContext, ScalerDeleter>;

struct ResamplerDeleter {
    void operator()(SwrContext* resampler) const { swr_free(&resampler); }
};
using ResamplerOwner = std::unique_ptr<SwrContext, ResamplerDeleter>;

struct LibraryDeleter {
    void operator()(void* library) const { dlclose(library); }
};
using LibraryOwner = std::unique_ptr<void, LibraryDeleter>;

// Why the last dlopen, of `path`, failed; cut to `size` bytes.
inline void describeLoadFailure(const char* path, char* text, size_t size) {
    const char* reason = dlerror();
    // The dynamic loader's text begins with the path, which the caller knows.
    const size_t known = std::strlen(path);
    if (std::strncmp(reason, path, known) == 0 && std::strncmp(reason + known, ": ", 2) == 0)
        reason += known + 2;
    std::snprintf(text, size, "%s", reason);
}

struct OpusDeleter {
    void operator()(OpusDecoder* decoder) const {
        completes([&] { opus_decoder_destroy(decoder); });
    }
    void operator()(OpusEncoder* encoder) const {
        completes([&] { opus_encoder_destroy(encoder); });
    }
};
using OpusDecoderOwner = std::unique_ptr<OpusDecoder, OpusDeleter>;
using OpusEncoderOwner = std::unique_ptr<OpusEncoder, OpusDeleter>;
