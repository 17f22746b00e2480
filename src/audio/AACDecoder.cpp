#include "audio/AACDecoder.h"

#include "audio/FirstFrame.h"
#include "bridge/JavaCall.h"
#include "bridge/Log.h"
#include "bridge/Registries.h"
#include "com_kelvane_media_transform_codec_AACDecoder.h"

extern "C" {
#include <libavformat/avformat.h>
}

#include <algorithm>
#include <iterator>

// The FFmpeg 4 functions and fields that are meant here are deprecated there.
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"

namespace {

constexpr Log say("AacDecoder");

constexpr uint32_t samplingFrequencies[] = {96000, 88200, 64000, 48000, 44100, 32000, 24000,
                                            22050, 16000, 12000, 11025, 8000,  7350};
constexpr int bytesPerSample = 2;
constexpr int samplesPerFrame = 1024; // per channel

// A damaged unit may tell FFmpeg of band replication or of other channels, which it then holds on to for
// ever. Or the stream is none of the configured kind, which no fresh start changes.
constexpr int misfitsBeforeFreshStart = 4; // frames in a row
constexpr int mostFreshStarts = 5;         // in a row, over frames of one kind

// Of four bits, within the second half of the first byte and the first bit of the second.
int samplingFrequencyIndex(const uint8_t* config) { return (config[0] & 7) << 1 | config[1] >> 7; }

FrameOwner audioFrame(uint64_t layout, AVSampleFormat format, uint32_t sampleRate) {
    FrameOwner frame(av_frame_alloc());
    if (!frame) return nullptr;
    frame->channel_layout = layout;
    frame->format = format;
    frame->sample_rate = static_cast<int>(sampleRate);
    return frame;
}

} // namespace

void AudioDecoder::open() {
    codec = avcodec_find_decoder(AV_CODEC_ID_AAC);
    if (!codec) {
        status = -1;
        say.error("Could not find an AAC decoder.\n");
        return;
    }
    profile = config[0] >> 3;
    rateIndex = static_cast<uint8_t>(samplingFrequencyIndex(config));
    channels = config[1] >> 3 & 15;
    sampleRate = samplingFrequencies[rateIndex];
    const int rate = static_cast<int>(sampleRate);
    const int layout = channels < 2 ? AV_CH_LAYOUT_MONO : AV_CH_LAYOUT_STEREO;

    resampler.reset(swr_alloc_set_opts(nullptr, layout, AV_SAMPLE_FMT_S16, rate, layout, AV_SAMPLE_FMT_FLTP,
                                       rate, 0, nullptr));
    status = static_cast<int8_t>(resampler ? swr_init(resampler.get()) : AVERROR(ENOMEM));
    say.debug("resampler init, %d\n", static_cast<uint8_t>(status));
    say.debug("profile, %d\nhz_index, %d\nchannels, %d\n", static_cast<int>(profile), rateIndex,
              static_cast<int>(channels));

    frame = audioFrame(layout, AV_SAMPLE_FMT_FLTP, sampleRate);
    converted = audioFrame(layout, AV_SAMPLE_FMT_S16, sampleRate);
    if (!frame || !converted) return;
    // The resampler writes to `output` itself.
    converted->data[0] = output;
    converted->linesize[0] = sizeof output;
    openContext();
    if (!context) return;
    if (context->codec) {
        say.debug("codec opened\n");
    } else {
        say.warning("setting codec\n");
        context->codec = codec;
    }
}

void AudioDecoder::openContext() {
    misfits = 0;
    context.reset(avcodec_alloc_context3(codec));
    auto* extradata = static_cast<uint8_t*>(av_mallocz(configSize + AV_INPUT_BUFFER_PADDING_SIZE));
    if (!context || !extradata) {
        av_free(extradata);
        context.reset();
        return;
    }
    std::copy_n(config, configSize, extradata);
    context->extradata = extradata;
    context->extradata_size = configSize;
    context->channels = static_cast<int>(channels);
    context->sample_rate = static_cast<int>(sampleRate);
    context->profile = static_cast<int>(profile);
    context->sample_fmt = AV_SAMPLE_FMT_FLTP;
    context->time_base = {1, context->sample_rate};
    context->refcounted_frames = 1;
    status = static_cast<int8_t>(openCodec(context, codec));
}

int AudioDecoder::decode(unsigned char* data, int size) {
    // FFmpeg reads through null in a context that failed to open.
    if (!resampler || !converted || !context || !avcodec_is_open(context.get())) return 0;
    bool got = false;
    status = static_cast<int8_t>(decodeFirstFrame(context.get(), frame.get(), &got, input, data, size));
    if (!got) return 0;
    const int samples = convert();
    if (outputSize == samplesPerFrame * channels * bytesPerSample) {
        misfits = freshStarts = 0;
    } else {
        misfits = std::min(misfits + 1, misfitsBeforeFreshStart);
        if (misfits == misfitsBeforeFreshStart) startAfresh();
    }
    return samples;
}

void AudioDecoder::startAfresh() {
    // The profile is that of the unit itself: it tells band replication that is there from what FFmpeg
    // believes.
    const Kind kind{frame->channels, frame->sample_rate, frame->nb_samples, context->profile};
    if (kind != misfit) freshStarts = 0;
    misfit = kind;
    if (freshStarts == mostFreshStarts) return;
    ++freshStarts;
    openContext();
}

// Returns the samples per channel in `output`, 0 for a frame that is not of the configured stream.
int AudioDecoder::convert() {
    outputSize = 0;
    const int room = static_cast<int>(sizeof output) / ((channels < 2 ? 1 : 2) * bytesPerSample);
    // The resampler would keep what does not fit, more with every frame.
    if (frame->nb_samples > room) return 0;
    converted->nb_samples = room;
    const int result = swr_convert_frame(resampler.get(), converted.get(), frame.get());
    status = static_cast<int8_t>(result);
    if (result != 0) return 0;
    const int samples = converted->nb_samples;
    const auto bytes = static_cast<size_t>(samples) * channels * bytesPerSample;
    // A stream may deliver two channels whatever larger number its configuration claims.
    if (channels > 2) return 0;
    outputSize = static_cast<uint16_t>(bytes);
    return samples;
}

void AudioDecoder::close() {
    frame.reset();
    converted.reset();
    resampler.reset();
    context.reset();
    input.reset();
}

JNIEXPORT jlong JNICALL Java_com_kelvane_media_transform_codec_AACDecoder_open(JNIEnv* env, jclass,
                                                                               jbyteArray config) {
    av_register_all();
    if (!config) return 0;
    const jsize length = env->GetArrayLength(config);
    if (length <= 1) {
        say.warning("AACDecoder warning, specific config too small  %d\n", length);
        return -1;
    }
    if (length > static_cast<jsize>(sizeof AudioDecoder::config)) {
        say.complaint("AAC decoder: a configuration of %d bytes is too long\n", length);
        return -1;
    }
    const ArrayCopy copy = JavaCall(env).copyIn(config);
    if (!copy) return 0;
    const int index = samplingFrequencyIndex(copy.as<uint8_t>());
    if (index >= static_cast<int>(std::size(samplingFrequencies))) {
        say.complaint("AAC decoder: sampling frequency index %d is not supported\n", index);
        return -1;
    }
    AudioDecoder* decoder = aac_dec_ctx.NewCodec();
    if (!decoder) return 0;
    std::copy_n(copy.as<uint8_t>(), length, decoder->config);
    decoder->configSize = static_cast<uint8_t>(length);
    decoder->open();
    if (decoder->codec) return decoder->handle;
    aac_dec_ctx.RemoveCodec(decoder->handle);
    return 0;
}

JNIEXPORT jint JNICALL Java_com_kelvane_media_transform_codec_AACDecoder_decode(
    JNIEnv* env, jclass, jbyteArray input, jbyteArray info, jbyteArray output, jlong handle) {
    AudioDecoder* decoder = aac_dec_ctx.GetCoder(handle);
    if (!decoder || !input || !info || !output) return 0;
    JavaCall java(env);
    const jsize outputLength = env->GetArrayLength(output);
    const ArrayCopy accessUnit = java.copyIn(input);
    if (!accessUnit) return 0;
    const int samples = decoder->decode(accessUnit.as<unsigned char>(), accessUnit.size);
    if (samples <= 0) return samples;

    const int required = static_cast<int>(decoder->channels << 11);
    if (outputLength != required) {
        say.warning("AACDecoder warning, output buffer is too small. required= %d\n", required);
        return -required;
    }
    if (decoder->outputSize != required) {
        say.warning("error, expected sample size did not match %d \n", decoder->outputSize);
        return 0;
    }
    java.copyWithin(output, decoder->output, decoder->outputSize);
    uint8_t about[5] = {1};
    putBigEndian(about + 1, 4, static_cast<uint32_t>(decoder->frame->nb_samples));
    java.copyOut(info, about, sizeof about);
    return samples;
}

JNIEXPORT void JNICALL Java_com_kelvane_media_transform_codec_AACDecoder_close(JNIEnv*, jclass,
                                                                               jlong handle) {
    if (closeCodec(aac_dec_ctx, handle)) say.debug("AAC decoder codec closed\n");
}
