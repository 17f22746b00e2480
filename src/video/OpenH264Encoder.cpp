#include "video/OpenH264Encoder.h"

#include "bridge/Exceptions.h"
#include "bridge/JavaCall.h"
#include "bridge/Log.h"
#include "bridge/Registries.h"
#include "com_kelvane_media_transform_codec_OpenH264Encoder.h"
#include "video/I420.h"

extern "C" {
#include <libavformat/avformat.h>
#include <libavutil/imgutils.h>
#include <libavutil/opt.h>
}

#include <algorithm>
#include <cstring>
#include <utility>

// The encoding calls of FFmpeg 4 that are meant here are deprecated there.
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"

namespace {

constexpr Log say("VideoEncoder");

// FFmpeg's OpenH264 encoder refuses this profile and knows none of the other options; those of another build
// may, so that their results are not checked.
constexpr const char* privateOptions[][2] = {
    {"profile", "baseline"},  {"level", "3.2"},        {"crf", "18"},
    {"thread_type", "slice"}, {"tune", "zerolatency"},
};

// Encodes a picture, over which the access unit is written.
jint encodeCopy(VideoEncoder& encoder, JavaCall& java, const ArrayCopy& picture, jbyteArray output,
                jbyteArray info) {
    if (!picture) return 0;
    const int result = encoder.encode(picture.as<signed char>(), picture.size, 0);
    if (result != 1) return result;
    constexpr uint8_t startCode[] = {0, 0, 0, 1};
    if (encoder.encodedSize < 4 || std::memcmp(picture.bytes.get(), startCode, sizeof startCode) != 0)
        say.warning("AVC encoder nal code not found\n");
    java.copyOut(output, picture.bytes.get(), encoder.encodedSize);

    uint8_t about[7] = {static_cast<uint8_t>(encoder.frame->key_frame)};
    putBigEndian(about + 1, 4, static_cast<uint32_t>(encoder.encodedSize));
    about[5] = 1;
    java.copyOut(info, about, sizeof about);
    return 1;
}

} // namespace

void VideoEncoder::open() {
    codec = avcodec_find_encoder_by_name("libopenh264");
    if (!codec) {
        say.warning("AVC encoder codec not found\n");
        return;
    }
    if (frameRate == 0) frameRate = 15;
    context = makeContext();
    if (!context) return;
    say.debug("avcodec_open2: %d  : %d : %d : %d\n", width, height, frameRate, bitRate);
    const int result = openCodec(context, codec);
    if (result < 0) {
        say.warning("AVC encoder codec not opened %d\n", result);
        return;
    }
    if (context->codec) {
        say.debug("AVC encoder codec opened\n");
    } else {
        say.warning("AVC encoder setting codec\n");
        context->codec = codec;
    }
    if (!makePictures()) return;
    say.debug("AVC encoder Y: %d  U: %d V: %d \n", frame->linesize[0], frame->linesize[1],
              frame->linesize[2]);
    status = 0;
}

CodecContextOwner VideoEncoder::makeContext() const {
    CodecContextOwner made(avcodec_alloc_context3(codec));
    if (!made) return made;
    made->bit_rate = bitRate;
    made->width = width;
    made->height = height;
    made->time_base = {1, frameRate};
    made->gop_size = static_cast<int>(int64_t{2} * frameRate);
    made->max_b_frames = 0;
    made->pix_fmt = AV_PIX_FMT_YUV420P;
    made->ticks_per_frame = 2;
    for (const auto& [name, value] : privateOptions)
        av_opt_set(made->priv_data, name, value, AV_OPT_SEARCH_CHILDREN);
    return made;
}

bool VideoEncoder::makePictures() {
    frame.reset(av_frame_alloc());
    if (!frame) {
        say.warning("AVC encoder could not allocate video frame\n");
        return false;
    }
    frame->format = context->pix_fmt;
    frame->width = context->width;
    frame->height = context->height;
    const int size =
        av_image_alloc(frame->data, frame->linesize, frame->width, frame->height, context->pix_fmt, 32);
    if (size < 0) {
        say.warning("AVC encoder could not allocate raw picture buffer\n");
        return false;
    }
    if (hasWholeChroma(*frame)) {
        // Packed pictures of such a size are encoded where they are.
        given.reset(av_frame_alloc());
        if (!given) return false;
        given->format = frame->format;
        given->width = frame->width;
        given->height = frame->height;
    } else {
        // The encoder reads the last chroma row and column of an odd size, which packed pictures do not have.
        std::memset(frame->data[0], 128, static_cast<size_t>(size));
    }
    return true;
}

int VideoEncoder::encode(signed char* data, int length, unsigned int timestamp) {
    failure = -1;
    if (!frame || status != 0) return 0;
    const int64_t chromaSize = int64_t{frame->width / 2} * (frame->height / 2);
    if (length < int64_t{frame->width} * frame->height + 2 * chromaSize) return 0;
    int got = 0;
    if (!completes([&] { got = encodeChecked(data, length, timestamp); }))
        say.warning("Exception in encode\n");
    av_packet_unref(&packet);
    return got;
}

int VideoEncoder::encodeChecked(signed char* data, int length, unsigned int timestamp) {
    av_init_packet(&packet);
    packet.data = nullptr;
    packet.size = 0;
    auto* const packed = reinterpret_cast<uint8_t*>(data);
    AVFrame* const picture = given ? given.get() : frame.get();
    if (given)
        av_image_fill_arrays(given->data, given->linesize, packed, context->pix_fmt, given->width,
                             given->height, 1);
    else
        unpackPicture(packed, *frame);
    picture->pts = int64_t{timestamp} * 1000;
    picture->pict_type = keyRequested ? AV_PICTURE_TYPE_I : AV_PICTURE_TYPE_NONE;
    int got = 0;
    failure = std::min(avcodec_encode_video2(context.get(), &packet, picture, &got), 0);
    if (packet.size > length) failure = -1;
    if (failure != 0) {
        if (!renewed) say.warning("AVC encoder failed to encode frame\n");
        got = 0;
    }
    if (got) {
        keyRequested = false;
        std::memcpy(data, packet.data, static_cast<size_t>(packet.size));
        encodedSize = packet.size;
        encodedTimestamp = static_cast<int32_t>(packet.pts / 1000);
    }
    return got;
}

bool VideoEncoder::setBitRate(int32_t bitsPerSecond) {
    if (status != 0) return false;
    if (bitsPerSecond == bitRate) return true;
    const int32_t before = std::exchange(bitRate, bitsPerSecond);
    CodecContextOwner other = makeContext();
    if (!other || openCodec(other, codec) < 0) {
        bitRate = before;
        return false;
    }
    context = std::move(other);
    return true;
}

bool VideoEncoder::renew() {
    status = 1;
    renewed = true;
    // One that never had pictures refused its size.
    if (!codec || !frame) return false;
    context = makeContext();
    if (!context || openCodec(context, codec) < 0) return false;
    status = 0;
    return true;
}

void VideoEncoder::close() {
    frame.reset();
    given.reset();
    context.reset();
    codec = nullptr;
}

JNIEXPORT jlong JNICALL Java_com_kelvane_media_transform_codec_OpenH264Encoder_open(JNIEnv* env, jclass type,
                                                                                    jint width, jint height,
                                                                                    jint frameRate,
                                                                                    jint bitRate, jint) {
    return Java_com_kelvane_media_transform_codec_OpenH264Encoder_openAt(
        env, type, width, height, frameRate <= 0 ? 15 : std::min(frameRate, 30), std::max(bitRate, 256000));
}

JNIEXPORT jlong JNICALL Java_com_kelvane_media_transform_codec_OpenH264Encoder_openAt(JNIEnv*, jclass,
                                                                                      jint width, jint height,
                                                                                      jint frameRate,
                                                                                      jint bitRate) {
    av_register_all();
    av_log_set_level(AV_LOG_QUIET);
    VideoEncoder* encoder = avc_enc_ctx.NewCodec();
    if (!encoder) return -1;
    say.debug("Codec init\n");
    encoder->width = width;
    encoder->height = height;
    encoder->frameRate = std::max(frameRate, 1);
    encoder->bitRate = std::max(bitRate, 1);
    encoder->open();
    if (encoder->codec) return encoder->handle;
    avc_enc_ctx.RemoveCodec(encoder->handle);
    return 0;
}

JNIEXPORT jint JNICALL Java_com_kelvane_media_transform_codec_OpenH264Encoder_encode(JNIEnv* env, jclass,
                                                                                     jbyteArray data,
                                                                                     jbyteArray info,
                                                                                     jlong handle) {
    VideoEncoder* encoder = avc_enc_ctx.GetCoder(handle);
    if (!encoder || !data || !info) return 0;
    JavaCall java(env);
    return encodeCopy(*encoder, java, java.copyIn(data), data, info);
}

JNIEXPORT jint JNICALL Java_com_kelvane_media_transform_codec_OpenH264Encoder_encodePart(
    JNIEnv* env, jclass, jbyteArray data, jobject direct, jint from, jint size, jbyteArray output,
    jbyteArray info, jlong handle) {
    VideoEncoder* encoder = avc_enc_ctx.GetCoder(handle);
    if (!encoder || !output || !info) return 0;
    JavaCall java(env);
    return encodeCopy(*encoder, java, java.copyIn(data, direct, from, size), output, info);
}

JNIEXPORT jint JNICALL Java_com_kelvane_media_transform_codec_OpenH264Encoder_status(JNIEnv*, jclass,
                                                                                     jlong handle) {
    const VideoEncoder* encoder = avc_enc_ctx.GetCoder(handle);
    return encoder ? encoder->status : 1;
}

JNIEXPORT jint JNICALL Java_com_kelvane_media_transform_codec_OpenH264Encoder_requestKey(JNIEnv*, jclass,
                                                                                         jlong handle) {
    VideoEncoder* encoder = avc_enc_ctx.GetCoder(handle);
    if (!encoder || encoder->status != 0) return 0;
    encoder->requestKey();
    return 1;
}

JNIEXPORT jint JNICALL Java_com_kelvane_media_transform_codec_OpenH264Encoder_setBitrate(JNIEnv*, jclass,
                                                                                         jint bitsPerSecond,
                                                                                         jlong handle) {
    VideoEncoder* encoder = avc_enc_ctx.GetCoder(handle);
    return encoder && encoder->setBitRate(bitsPerSecond);
}

JNIEXPORT jint JNICALL Java_com_kelvane_media_transform_codec_OpenH264Encoder_failure(JNIEnv*, jclass,
                                                                                      jlong handle) {
    const VideoEncoder* encoder = avc_enc_ctx.GetCoder(handle);
    return encoder ? encoder->failure : 0;
}

JNIEXPORT jint JNICALL Java_com_kelvane_media_transform_codec_OpenH264Encoder_renew(JNIEnv*, jclass,
                                                                                    jlong handle) {
    VideoEncoder* encoder = avc_enc_ctx.GetCoder(handle);
    return encoder && encoder->renew();
}

JNIEXPORT void JNICALL Java_com_kelvane_media_transform_codec_OpenH264Encoder_close(JNIEnv*, jclass,
                                                                                    jlong handle) {
    if (closeCodec(avc_enc_ctx, handle)) say.debug("AVC encoder codec closed\n");
}
