#include "audio/NOpusDecoder.h"

#include "audio/OpusRegistries.h"
#include "bridge/JavaCall.h"
#include "bridge/Log.h"
#include "com_kelvane_media_transform_codec_NOpusDecoder.h"

#include <algorithm>
#include <cstring>

namespace {

constexpr Log say("OpusDecoder");

constexpr int sampleRate = 48000;
constexpr int codedChannels = 2;
constexpr int longestFrame = 5760; // samples per channel: 120 ms

constexpr int pcmBytes(int channels, int samples) { return channels * samples * 2; }

} // namespace

void NOpusDecoder::open() {
    say.debug("Opus decoder - channels in: %d out: %d\n", codedChannels, channels);
    int error = OPUS_OK;
    decoder.reset(opus_decoder_create(sampleRate, codedChannels, &error));
    if (error < 0) {
        say.error("failed to create an decoder: %s\n", opus_strerror(error));
        close();
    } else {
        say.debug("Opus decoder opened\n");
    }
}

int NOpusDecoder::decode(unsigned char* data, int length) {
    int16_t pcm[longestFrame * codedChannels];
    return deliver(opus_decode(decoder.get(), data, length, pcm, longestFrame, fec), pcm);
}

int NOpusDecoder::conceal(int samples) {
    if (samples <= 0 || samples > longestFrame) return 0;
    int16_t pcm[longestFrame * codedChannels];
    return deliver(opus_decode(decoder.get(), nullptr, 0, pcm, samples, 0), pcm);
}

int NOpusDecoder::decodeLost(int samples, const unsigned char* next, int length) {
    if (samples <= 0 || samples > longestFrame) return 0;
    int16_t pcm[longestFrame * codedChannels];
    return deliver(opus_decode(decoder.get(), next, length, pcm, samples, 1), pcm);
}

bool NOpusDecoder::carriesFec(const unsigned char* packet, int length) {
    constexpr unsigned char withoutSpeech = 0x80;
    if (length < 1 || packet[0] & withoutSpeech) return false;
    const unsigned char* frames[48];
    opus_int16 sizes[48];
    if (opus_packet_parse(packet, length, nullptr, frames, sizes, nullptr) < 1 || sizes[0] < 1) return false;
    // Each channel begins with a bit for each 20 ms, whether there is voice, and then one for the copy.
    const int voiceBits = std::max(1, opus_packet_get_samples_per_frame(packet, sampleRate) / 960);
    const int bits = frames[0][0];
    const bool first = bits >> (7 - voiceBits) & 1;
    const bool second = opus_packet_get_nb_channels(packet) == 2 && bits >> (6 - 2 * voiceBits) & 1;
    return first || second;
}

// `samples`: libopus's result.
int NOpusDecoder::deliver(int samples, const int16_t* pcm) {
    if (samples <= 0) {
        if (failureLines != 0) say.complaint("decoder failed: %s\n", opus_strerror(samples));
        if (failureLines > 0) --failureLines;
        return samples;
    }
    if (!output) {
        // A lost packet may take the longest frame later on.
        output = mallocBuffer(static_cast<size_t>(pcmBytes(channels, longestFrame)));
        if (!output) return 0;
        say.debug("malloc %d init\n", pcmBytes(channels, samples));
    }
    auto* out = reinterpret_cast<int16_t*>(output.get());
    if (channels == codedChannels) {
        std::memcpy(out, pcm, static_cast<size_t>(pcmBytes(channels, samples)));
    } else {
        for (int i = 0; i < samples; ++i)
            out[i] = pcm[codedChannels * i];
    }
    return samples;
}

void NOpusDecoder::close() {
    decoder.reset();
    output.reset();
}

namespace {

jint copyOut(const JavaCall& java, const NOpusDecoder& engine, int samples, jbyteArray output) {
    if (samples <= 0) return 0;
    const int size = pcmBytes(engine.channels, samples);
    if (size > java.env->GetArrayLength(output)) {
        say.warning("error, expected sample size did not match %d\n", size);
        return -size;
    }
    java.copyWithin(output, engine.output.get(), size);
    return samples;
}

} // namespace

JNIEXPORT jlong JNICALL Java_com_kelvane_media_transform_codec_NOpusDecoder_open(JNIEnv*, jclass,
                                                                                 jint channels, jint fec) {
    if (channels != 1 && channels != 2) return 0;
    NOpusDecoder* engine = opus_dec_ctx.NewCodec();
    if (!engine) return 0;
    engine->channels = channels;
    engine->fec = fec;
    engine->open();
    if (engine->decoder) {
        say.debug("Opus decoder codec opened\n");
        return engine->handle;
    }
    opus_dec_ctx.RemoveCodec(engine->handle);
    return 0;
}

JNIEXPORT jint JNICALL Java_com_kelvane_media_transform_codec_NOpusDecoder_decode(JNIEnv* env, jclass,
                                                                                  jbyteArray input,
                                                                                  jbyteArray output,
                                                                                  jlong handle) {
    NOpusDecoder* engine = opus_dec_ctx.GetCoder(handle);
    if (!engine) {
        say.error("decoder null\n");
        return -1;
    }
    if (!input || !output) return 0;
    JavaCall java(env);
    const ArrayCopy packet = java.copyIn(input);
    if (!packet) return 0;
    return copyOut(java, *engine, engine->decode(packet.as<unsigned char>(), packet.size), output);
}

JNIEXPORT jint JNICALL Java_com_kelvane_media_transform_codec_NOpusDecoder_conceal(JNIEnv* env, jclass,
                                                                                   jint samples,
                                                                                   jbyteArray output,
                                                                                   jlong handle) {
    NOpusDecoder* engine = opus_dec_ctx.GetCoder(handle);
    if (!engine || !output) return 0;
    return copyOut(JavaCall(env), *engine, engine->conceal(samples), output);
}

JNIEXPORT jint JNICALL Java_com_kelvane_media_transform_codec_NOpusDecoder_decodeLost(
    JNIEnv* env, jclass, jint samples, jbyteArray next, jbyteArray output, jlong handle) {
    NOpusDecoder* engine = opus_dec_ctx.GetCoder(handle);
    if (!engine || !next || !output) return 0;
    JavaCall java(env);
    const ArrayCopy packet = java.copyIn(next);
    if (!packet) return 0;
    return copyOut(java, *engine, engine->decodeLost(samples, packet.as<unsigned char>(), packet.size),
                   output);
}

JNIEXPORT jboolean JNICALL Java_com_kelvane_media_transform_codec_NOpusDecoder_carriesFec(JNIEnv* env, jclass,
                                                                                          jbyteArray packet) {
    if (!packet) return JNI_FALSE;
    const ArrayCopy copy = JavaCall(env).copyIn(packet);
    return copy && NOpusDecoder::carriesFec(copy.as<unsigned char>(), copy.size);
}

JNIEXPORT void JNICALL Java_com_kelvane_media_transform_codec_NOpusDecoder_limitFailureLines(JNIEnv*, jclass,
                                                                                             jint lines,
                                                                                             jlong handle) {
    if (NOpusDecoder* engine = opus_dec_ctx.GetCoder(handle)) engine->failureLines = lines;
}

JNIEXPORT void JNICALL Java_com_kelvane_media_transform_codec_NOpusDecoder_close(JNIEnv*, jclass,
                                                                                 jlong handle) {
    if (closeCodec(opus_dec_ctx, handle)) say.debug("Opus decoder codec closed\n");
}
