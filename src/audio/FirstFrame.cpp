#include "audio/FirstFrame.h"

#include <algorithm>
#include <climits>
#include <cstring>

// The decoding call of FFmpeg 4 that is meant here is deprecated there.
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"

namespace {

// To the AAC decoder an access unit of no elements, to the MP3 decoder no frame at all: neither changes its
// state over it, nor looks at what follows when that is zeros.
constexpr uint8_t emptyUnit = 0xE0;

// Bytes. Units of more, which no encoder makes, do not leave a decoder with their memory for good.
constexpr int ordinaryUnit = 8192;

} // namespace

int decodeFirstFrame(AVCodecContext* context, AVFrame* frame, bool* got, BufferOwner& input,
                     const unsigned char* data, int size) {
    *got = false;
    if (size > INT_MAX - AV_INPUT_BUFFER_PADDING_SIZE) return AVERROR(EINVAL);
    // FFmpeg copies a packet without a buffer. With one, what FFmpeg keeps of the packet can be changed here.
    if (!input || size > ordinaryUnit)
        input.reset(av_buffer_alloc(std::max(size, ordinaryUnit) + AV_INPUT_BUFFER_PADDING_SIZE));
    if (!input) return AVERROR(ENOMEM);
    std::memcpy(input->data, data, static_cast<size_t>(size));
    std::memset(input->data + size, 0, AV_INPUT_BUFFER_PADDING_SIZE);
    AVPacket packet;
    av_init_packet(&packet);
    packet.buf = input.get();
    packet.data = input->data;
    packet.size = size;
    int gotFrame = 0;
    const int result = avcodec_decode_audio4(context, frame, &gotFrame, &packet);
    *got = gotFrame != 0;
    // FFmpeg keeps what a call leaves of its packet and takes the next packet for that remainder, which loses
    // good packets from then on.
    if (const FrameOwner dropped(result >= 0 && result < size ? av_frame_alloc() : nullptr); dropped) {
        packet.data += result;
        packet.size -= result;
        packet.data[0] = emptyUnit;
        std::memset(packet.data + 1, 0, static_cast<size_t>(packet.size) - 1);
        avcodec_decode_audio4(context, dropped.get(), &gotFrame, &packet);
    }
    // Where that could not be done, what comes next loses what it refers to.
    if (av_buffer_get_ref_count(input.get()) > 1) avcodec_flush_buffers(context);
    if (size > ordinaryUnit) input.reset();
    return result;
}
