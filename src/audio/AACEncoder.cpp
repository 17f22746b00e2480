#include "audio/AACEncoder.h"

#include "bridge/JavaCall.h"
#include "bridge/Log.h"
#include "bridge/Registries.h"
#include "com_kelvane_media_transform_codec_AACEncoder.h"

extern "C" {
#include <libavformat/avformat.h>
}

#include <algorithm>
#include <cstring>

// The encoding call of FFmpeg 4 that is meant here is deprecated there.
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"

namespace {

constexpr Log say("AacEncoder");

constexpr int blockSamples = 1024; // per channel

// FFmpeg's encoder gives each block 6144 bits a channel at most. Of less than this its cutoff frequency can
// come to be 0, and it then ends the process where it cleans up.
constexpr int smallestBitrate = 8000; // bits per second and channel
constexpr int largestBitsPerSample = 6;

// Of a block of PCM; also more than the largest access unit, 768 bytes for each channel.
constexpr int blockBytes(int channels) { return channels * blockSamples * 2; }

} // namespace

void AudioEncoder::open() {
    codec = avcodec_find_encoder(AV_CODEC_ID_AAC);
    if (!codec) {
        say.error("Could not find an AAC encoder.\n");
        return;
    }
    channelLayout = channels > 1 ? AV_CH_LAYOUT_STEREO : AV_CH_LAYOUT_MONO;
    resampler.reset(swr_alloc_set_opts(nullptr, channelLayout, AV_SAMPLE_FMT_FLTP, sampleRate, channelLayout,
                                       AV_SAMPLE_FMT_S16, sampleRate, 0, nullptr));
    result = resampler ? swr_init(resampler.get()) : AVERROR(ENOMEM);

    context.reset(avcodec_alloc_context3(codec));
    frame.reset(av_frame_alloc());
    if (!context || !frame) {
        say.warning("codec not opened\n");
        return;
    }
    frame->nb_samples = blockSamples;
    frame->channel_layout = static_cast<uint64_t>(channelLayout);
    frame->channels = channels;
    frame->format = AV_SAMPLE_FMT_FLTP;
    frame->sample_rate = sampleRate;
    if (av_frame_get_buffer(frame.get(), 0) < 0) frame.reset();

    context->sample_rate = sampleRate;
    context->time_base = {1, sampleRate};
    context->channels = channels;
    context->profile = FF_PROFILE_AAC_LOW;
    context->sample_fmt = AV_SAMPLE_FMT_FLTP;
    context->channel_layout = static_cast<uint64_t>(channelLayout);
    context->bit_rate = bitrate;
    // FFmpeg has counted its AAC encoder among the experimental ones.
    context->strict_std_compliance = FF_COMPLIANCE_EXPERIMENTAL;
    if (openCodec(context, codec) < 0) {
        say.warning("codec not opened\n");
    } else if (context->codec) {
        say.debug("codec opened\n");
    } else {
        say.warning("setting codec\n");
        context->codec = codec;
    }
}

int AudioEncoder::encode(const short* pcm) {
    const int capacity = blockBytes(channels);
    if (!output) {
        output = mallocBuffer(static_cast<size_t>(capacity));
        say.debug("malloc %d init\n", capacity);
    }
    outputSize = 0;
    // FFmpeg reads through null in a context that failed to open.
    if (!output || !frame || !resampler || !context || !avcodec_is_open(context.get())) return 0;
    const auto* block = reinterpret_cast<const uint8_t*>(pcm);
    result = swr_convert(resampler.get(), frame->extended_data, blockSamples, &block, blockSamples);
    if (result != blockSamples) {
        say.warning("error %d \n", result);
        return 0;
    }
    AVPacket packet{};
    result = 0;
    avcodec_encode_audio2(context.get(), &packet, frame.get(), &result);
    if (result != 0 && packet.size > 0 && packet.size <= capacity) {
        std::memcpy(output.get(), packet.data, static_cast<size_t>(packet.size));
        outputSize = packet.size;
    }
    av_packet_unref(&packet);
    return outputSize;
}

void AudioEncoder::close() {
    resampler.reset();
    context.reset();
    output.reset();
    frame.reset();
}

namespace {

// A `bitrate` of 0 leaves the engine's own.
jlong open(int channels, int sampleRate, int bitrate) {
    av_register_all();
    AudioEncoder* encoder = aac_enc_ctx.NewCodec();
    if (!encoder) return -1;
    say.debug("Codec init\n");
    encoder->channels = std::clamp(channels, 1, 2);
    encoder->sampleRate = sampleRate;
    if (bitrate != 0) encoder->bitrate = bitrate;
    encoder->open();
    if (encoder->codec) {
        say.debug("AAC encoder codec opened\n");
        return encoder->handle;
    }
    aac_enc_ctx.RemoveCodec(encoder->handle);
    return 0;
}

} // namespace

JNIEXPORT jlong JNICALL Java_com_kelvane_media_transform_codec_AACEncoder_open(JNIEnv*, jclass, jint channels,
                                                                               jint sampleRate) {
    return open(channels, sampleRate, 0);
}

JNIEXPORT jlong JNICALL Java_com_kelvane_media_transform_codec_AACEncoder_openAt(JNIEnv*, jclass,
                                                                                 jint channels,
                                                                                 jint sampleRate,
                                                                                 jint bitrate) {
    const int64_t count = std::clamp(channels, 1, 2);
    if (bitrate < smallestBitrate * count || bitrate > largestBitsPerSample * count * sampleRate) return 0;
    return open(channels, sampleRate, bitrate);
}

JNIEXPORT jint JNICALL Java_com_kelvane_media_transform_codec_AACEncoder_encode(
    JNIEnv* env, jclass, jbyteArray pcm, jbyteArray info, jbyteArray output, jlong handle) {
    AudioEncoder* encoder = aac_enc_ctx.GetCoder(handle);
    if (!encoder) return -1;
    if (!pcm || !info || !output) return 0;
    JavaCall java(env);
    const ArrayCopy block = java.copyIn(pcm);
    if (!block || block.size < blockBytes(encoder->channels)) return 0;
    const int size = encoder->encode(block.as<short>());
    if (size <= 0) return 0;
    java.copyOut(output, encoder->output.get(), size);
    uint8_t about[6] = {1};
    putBigEndian(about + 1, 4, static_cast<uint32_t>(size));
    java.copyOut(info, about, sizeof about);
    return size;
}

JNIEXPORT void JNICALL Java_com_kelvane_media_transform_codec_AACEncoder_close(JNIEnv*, jclass,
                                                                               jlong handle) {
    if (closeCodec(aac_enc_ctx, handle)) say.debug("AAC encoder codec closed\n");
}
