#include "transcoder/CoderOut.h"

#include "bridge/Log.h"
#include "video/I420.h"

extern "C" {
#include <libavutil/imgutils.h>
}

#include <cstring>

namespace {

constexpr Log say("Transcoder");

} // namespace

void CoderOut::open() {
    say.debug("CoderOut::open index %d  w %d, h %d\n", index, width, height);
    // A scaler of an earlier open() would write pictures of another size into the new frame.
    scaler.reset();
    coder.reset(avc_opn_enc_ctx.NewCodec());
    if (!coder) return;
    coder->width = static_cast<uint32_t>(width);
    coder->height = static_cast<uint32_t>(height);
    coder->fps = static_cast<uint32_t>(fps);
    coder->keyInterval = static_cast<uint32_t>(keyInterval);
    coder->bitrate = bitrate;
    coder->maxBitrate = maxBitrate;
    coder->encMode = encMode;
    coder->profile = profile;
    coder->maxQp = maxQp;
    coder->minQp = minQp;
    coder->debug = debug;
    coder->steeredRate = pictureRate;
    coder->open();
    if (coder->debug) say.debug("opened %d\n", coder->status);

    int allocated = -1;
    frame.reset(av_frame_alloc());
    if (frame) {
        frame->format = AV_PIX_FMT_YUV420P;
        frame->width = width;
        frame->height = height;
        allocated = av_image_alloc(frame->data, frame->linesize, width, height, AV_PIX_FMT_YUV420P, 32);
    }
    if (coder->debug) say.debug("coder opened, error=%d  %d\n", coder->status, allocated);
}

void CoderOut::makeScaler(const AVFrame& in) {
    srcWidth = in.width;
    srcHeight = in.height;
    // The size is that of the picture scaled into: `width` and `height` may have been set anew since open().
    scaler.reset(frame ? sws_getContext(in.width, in.height, AV_PIX_FMT_YUV420P, frame->width, frame->height,
                                        AV_PIX_FMT_YUV420P, 0, nullptr, nullptr, nullptr)
                       : nullptr);
}

// Scaled to their own size, pictures would only be copied. (Those without chroma the scaler refuses.)
bool CoderOut::needsNoScaling(const AVFrame& in) const {
    return in.width == frame->width && in.height == frame->height && hasWholeChroma(in) && in.data[1] &&
           in.data[2];
}

bool CoderOut::encode(AVFrame* in) {
    failure = -1;
    if (released) return false;
    if (in->width != 0 && in->height != 0) {
        if (!scaler) {
            if (width == 0 || height == 0) {
                width = in->width;
                height = in->height;
            }
            if (!coder) open();
            say.debug("sws_context init %d  %d \n", in->width, in->height);
            makeScaler(*in);
        } else if (in->width != srcWidth || in->height != srcHeight) {
            say.debug("sws_context reinit \n");
            makeScaler(*in);
        }
    }
    if (!coder) return false;
    const bool debugging = coder->debug != 0;
    if (!scaler || coder->status != 0) {
        if (debugging) say.warning("fail2context %d \n", coder->status);
        return false;
    }
    const AVFrame* picture = frame.get();
    if (needsNoScaling(*in)) {
        picture = in;
    } else if (!frame->data[0] || sws_scale(scaler.get(), in->data, in->linesize, 0, in->height, frame->data,
                                            frame->linesize) != frame->height) {
        // (A frame without planes, for which there was no memory, is never scaled into.)
        if (debugging) say.warning("fail2sws_scale \n");
        return false;
    }
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
    frame->pts = in->pkt_pts / 1000;
#pragma GCC diagnostic pop
    const auto time = static_cast<uint32_t>(frame->pts);
    int encoded = 0;
    if (hasWholeChroma(*picture)) {
        encoded = coder->encode(picture->data, picture->linesize, time);
    } else if (const MallocBuffer packed = packPicture(*picture)) {
        encoded = coder->encode(packed.get(), packedPictureSize(picture->width, picture->height), time);
    } else {
        if (debugging) say.warning("could not alloc frame buffer \n");
        return false;
    }
    failure = coder->failure;
    if (encoded == 1 && coder->outputSize != 0) return true;
    if (debugging) say.debug("fail2 code %d \n", encoded);
    return false;
}

int CoderOut::write(AVFrame* in, AVPacket* packet) {
    packet->size = 0;
    if (!encode(in)) return 0;
    const auto size = static_cast<size_t>(coder->outputSize);
    MallocBuffer copy = mallocBuffer(size);
    if (!copy) {
        if (coder->debug) say.warning("fail2 code 1 \n");
        return 0;
    }
    std::memcpy(copy.get(), coder->output.get(), size);
    packet->data = copy.release();
    packet->size = coder->outputSize;
    return 1;
}

bool CoderOut::setBitrate(int32_t bitsPerSecond) {
    bitrate = bitsPerSecond;
    return !coder || coder->setBitrate(bitsPerSecond);
}

bool CoderOut::setFrameRate(float picturesPerSecond) {
    pictureRate = picturesPerSecond;
    return !coder || coder->setFrameRate(picturesPerSecond);
}

void CoderOut::release() {
    const int32_t id = index;
    close();
    *this = CoderOut();
    index = id;
    released = true;
}

void CoderOut::close() {
    say.debug("CoderOut::close index %d  w %d, h %d\n", index, width, height);
    frame.reset();
    scaler.reset();
    coder.reset();
}
