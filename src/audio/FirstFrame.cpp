#include "audio/FirstFrame.h"

// The decoding call of FFmpeg 4 that is meant here is deprecated there.
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"

int decodeFirstFrame(AVCodecContext* context, AVFrame* frame, bool* got, unsigned char* data, int size) {
    AVPacket packet;
    av_init_packet(&packet);
    packet.data = data;
    packet.size = size;
    int gotFrame = 0;
    const int result = avcodec_decode_audio4(context, frame, &gotFrame, &packet);
    *got = gotFrame != 0;
    // FFmpeg keeps what a call leaves of its packet and takes the next packet for that remainder, which loses
    // good packets from then on. So the remainder is decoded to its end, and its frames are dropped.
    if (result > 0 && result < size) {
        const FrameOwner dropped(av_frame_alloc());
        for (int consumed = result; dropped && consumed > 0 && consumed < packet.size;) {
            packet.data += consumed;
            packet.size -= consumed;
            consumed = avcodec_decode_audio4(context, dropped.get(), &gotFrame, &packet);
        }
    }
    return result;
}
