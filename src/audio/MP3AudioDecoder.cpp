#include "audio/MP3AudioDecoder.h"

#include "audio/FirstFrame.h"
#include "bridge/JavaCall.h"
#include "bridge/Log.h"
#include "bridge/Registries.h"
#include "com_kelvane_media_transform_codec_MPADecoder.h"

extern "C" {
#include <libavformat/avformat.h>
}

#include <cstring>
#include <initializer_list>

// The FFmpeg 4 functions and fields that are meant here are deprecated there.
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"

namespace {

constexpr Log say("Mp3Decoder");

// The first of the decoders that delivers 16-bit samples; null when none does. Candidates may be null.
const AVCodec* firstWith16BitSamples(std::initializer_list<const AVCodec*> candidates) {
    for (const AVCodec* codec : candidates)
        if (codec && codec->sample_fmts &&
            av_get_packed_sample_fmt(codec->sample_fmts[0]) == AV_SAMPLE_FMT_S16)
            return codec;
    return nullptr;
}

} // namespace

void MP3AudioDecoder::open() {
    // Where FFmpeg has its floating-point decoder, that one answers to the codec id.
    codec =
        firstWith16BitSamples({avcodec_find_decoder(AV_CODEC_ID_MP3), avcodec_find_decoder_by_name("mp3")});
    if (!codec) {
        status = -1;
        say.error("Could not find or open an MP3 decoder\n");
        return;
    }
    context.reset(avcodec_alloc_context3(codec));
    frame.reset(av_frame_alloc());
    if (!context || !frame) return;
    context->refcounted_frames = 1;
    status = static_cast<int8_t>(openCodec(context, codec));
    if (context->codec) {
        say.debug("codec opened\n");
    } else {
        say.warning("setting codec\n");
        context->codec = codec;
    }
}

int MP3AudioDecoder::decode(unsigned char* data, int length) {
    outputSize = 0;
    if (!context || !codec || !data || length <= 0) return 0;
    bool got = false;
    decodeFirstFrame(context.get(), frame.get(), &got, input, data, length);
    return got && takeFrame() ? frame->nb_samples : 0;
}

// Copies the samples of `frame`, interleaved; false when there is no memory for them.
bool MP3AudioDecoder::takeFrame() {
    sampleRate = frame->sample_rate;
    channels = frame->channels;
    const auto planeSize = static_cast<size_t>(frame->nb_samples) * sizeof(int16_t);
    const size_t size = planeSize * (channels > 1 ? 2 : 1);
    if (size > capacity) {
        output = zeroedBuffer(size);
        capacity = output ? static_cast<uint16_t>(size) : 0;
        if (!output) return false;
    }
    outputSize = static_cast<uint16_t>(size);
    if (channels > 1 && frame->format == AV_SAMPLE_FMT_S16P) {
        auto* out = reinterpret_cast<int16_t*>(output.get());
        const auto* left = reinterpret_cast<const int16_t*>(frame->data[0]);
        const auto* right = reinterpret_cast<const int16_t*>(frame->data[1]);
        for (int i = 0; i < frame->nb_samples; ++i) {
            out[2 * i] = left[i];
            out[2 * i + 1] = right[i];
        }
    } else {
        std::memcpy(output.get(), frame->data[0], size);
    }
    return true;
}

void MP3AudioDecoder::close() {
    frame.reset();
    context.reset();
    input.reset();
}

JNIEXPORT jlong JNICALL Java_com_kelvane_media_transform_codec_MPADecoder_open(JNIEnv*, jclass) {
    av_register_all();
    MP3AudioDecoder* decoder = mp3_dec_ctx.NewCodec();
    if (!decoder) return 0;
    decoder->open();
    if (decoder->status == 0) return decoder->handle;
    mp3_dec_ctx.RemoveCodec(decoder->handle);
    return 0;
}

JNIEXPORT jint JNICALL Java_com_kelvane_media_transform_codec_MPADecoder_decode(
    JNIEnv* env, jclass, jbyteArray input, jbyteArray info, jbyteArray output, jlong handle) {
    MP3AudioDecoder* decoder = mp3_dec_ctx.GetCoder(handle);
    if (!decoder || !input || !info || !output) return 0;
    JavaCall java(env);
    const jsize outputLength = env->GetArrayLength(output);
    const ArrayCopy mp3Frame = java.copyIn(input);
    if (!mp3Frame) return 0;
    const int samples = decoder->decode(mp3Frame.as<unsigned char>(), mp3Frame.size);
    if (samples <= 0) return 0;
    if (outputLength < decoder->outputSize) {
        say.warning("error, expected sample size did not match %d \n", decoder->outputSize);
        return -decoder->outputSize;
    }
    java.copyWithin(output, decoder->output.get(), decoder->outputSize);
    uint8_t about[5] = {1};
    putBigEndian(about + 1, 4, static_cast<uint32_t>(samples));
    java.copyOut(info, about, sizeof about);
    return 0;
}

JNIEXPORT void JNICALL Java_com_kelvane_media_transform_codec_MPADecoder_close(JNIEnv*, jclass,
                                                                               jlong handle) {
    if (closeCodec(mp3_dec_ctx, handle)) say.debug("MP3 decoder codec closed\n");
}
