#include "audio/NOpusEncoder.h"

#include "audio/OpusRegistries.h"
#include "bridge/JavaCall.h"
#include "bridge/Log.h"
#include "com_kelvane_media_transform_codec_NOpusEncoder.h"

#include <algorithm>
#include <iterator>
#include <limits>

namespace {

constexpr Log say("OpusEncoder");

constexpr int sampleRate = 48000;
constexpr int codedChannels = 2;
constexpr int packetCapacity = 5760; // bytes
constexpr int largestPacket = 3828;  // bytes: three frames of 1276

// The lengths that fit the packet area.
constexpr struct Duration {
    int choice;
    int samples; // per channel
} durations[] = {{OPUS_FRAMESIZE_2_5_MS, 120}, {OPUS_FRAMESIZE_5_MS, 240},   {OPUS_FRAMESIZE_10_MS, 480},
                 {OPUS_FRAMESIZE_20_MS, 960},  {OPUS_FRAMESIZE_40_MS, 1920}, {OPUS_FRAMESIZE_60_MS, 2880}};

} // namespace

void NOpusEncoder::open() {
    say.debug("Opus encoder - channels in: %d out: %d sample rate: %d bitrate: %d\n", channels, codedChannels,
              sampleRate, bitrate);
    int error = OPUS_OK;
    encoder.reset(opus_encoder_create(sampleRate, channels, OPUS_APPLICATION_AUDIO, &error));
    if (error < 0) {
        say.error("failed to create an encoder: %s\n", opus_strerror(error));
        close();
        return;
    }
    say.debug("Opus encoder opened\n");
    error = opus_encoder_ctl(encoder.get(), OPUS_SET_BITRATE(bitrate));
    if (error < 0) {
        say.error("failed to set bitrate: %s\n", opus_strerror(error));
        return;
    }
    const struct {
        int request;
        opus_int32 value;
        const char* name;
    } settings[] = {
        {OPUS_SET_SIGNAL_REQUEST, OPUS_SIGNAL_MUSIC, "OPUS_SIGNAL_MUSIC"},
        {OPUS_SET_BANDWIDTH_REQUEST, OPUS_BANDWIDTH_FULLBAND, "OPUS_BANDWIDTH_FULLBAND"},
        {OPUS_SET_COMPLEXITY_REQUEST, 10, "OPUS_SET_COMPLEXITY"},
        {OPUS_SET_DTX_REQUEST, 0, "OPUS_SET_DTX"},
        {OPUS_SET_EXPERT_FRAME_DURATION_REQUEST, OPUS_FRAMESIZE_20_MS, "OPUS_SET_EXPERT_FRAME_DURATION"},
        {OPUS_SET_FORCE_CHANNELS_REQUEST, codedChannels, "OPUS_SET_FORCE_CHANNELS"},
        {OPUS_SET_VBR_REQUEST, 0, "OPUS_SET_VBR"},
    };
    for (const auto& [request, value, name] : settings) {
        error = opus_encoder_ctl(encoder.get(), request, value);
        if (error != OPUS_OK) say.error("failed to set %s: %s\n", name, opus_strerror(error));
    }
}

int NOpusEncoder::encode(const short* pcm) {
    if (!packet) {
        packet = zeroedBuffer(packetCapacity); // Java may see the first byte of a packet that never was
        if (!packet) return 0;
        say.debug("malloc %d init\n", packetCapacity);
    }
    packetSize = opus_encode(encoder.get(), pcm, frameSize, packet.get(), largestPacket);
    if (packetSize >= 0) return packetSize;
    say.error("encode failed: %s\n", opus_strerror(packetSize));
    return 1;
}

bool NOpusEncoder::set(int request, int value) {
    constexpr int settings[] = {OPUS_SET_APPLICATION_REQUEST,
                                OPUS_SET_BITRATE_REQUEST,
                                OPUS_SET_VBR_REQUEST,
                                OPUS_SET_BANDWIDTH_REQUEST,
                                OPUS_SET_COMPLEXITY_REQUEST,
                                OPUS_SET_INBAND_FEC_REQUEST,
                                OPUS_SET_PACKET_LOSS_PERC_REQUEST,
                                OPUS_SET_DTX_REQUEST,
                                OPUS_SET_VBR_CONSTRAINT_REQUEST,
                                OPUS_SET_FORCE_CHANNELS_REQUEST,
                                OPUS_SET_SIGNAL_REQUEST,
                                OPUS_SET_EXPERT_FRAME_DURATION_REQUEST};
    if (std::ranges::find(settings, request) == std::end(settings)) return false;
    if (request != OPUS_SET_EXPERT_FRAME_DURATION_REQUEST)
        return opus_encoder_ctl(encoder.get(), request, value) == OPUS_OK;
    const auto duration = std::ranges::find(durations, value, &Duration::choice);
    if (duration == std::end(durations)) return false;
    if (opus_encoder_ctl(encoder.get(), request, value) != OPUS_OK) return false;
    frameSize = duration->samples;
    return true;
}

void NOpusEncoder::close() {
    encoder.reset();
    packet.reset();
}

JNIEXPORT jlong JNICALL Java_com_kelvane_media_transform_codec_NOpusEncoder_open(JNIEnv*, jclass,
                                                                                 jint channels, jint bitrate,
                                                                                 jint frameDuration) {
    NOpusEncoder* engine = opus_enc_ctx.NewCodec();
    if (!engine) return 0;
    engine->channels = channels;
    engine->bitrate = bitrate;
    engine->frameDuration = frameDuration;
    // Absurd durations are kept within 32 bits; no input is as long as they ask for.
    using Limits = std::numeric_limits<int32_t>;
    engine->frameSize = static_cast<int32_t>(
        std::clamp<int64_t>(int64_t{frameDuration} * sampleRate / 1000, Limits::min(), Limits::max()));
    engine->open();
    if (engine->encoder) {
        say.debug("Opus encoder codec opened\n");
        return engine->handle;
    }
    opus_enc_ctx.RemoveCodec(engine->handle);
    return 0;
}

JNIEXPORT jint JNICALL Java_com_kelvane_media_transform_codec_NOpusEncoder_encode(JNIEnv* env, jclass,
                                                                                  jbyteArray input,
                                                                                  jbyteArray output,
                                                                                  jlong handle) {
    NOpusEncoder* engine = opus_enc_ctx.GetCoder(handle);
    if (!engine) {
        say.error("encoder null\n");
        return -1;
    }
    if (!input || !output) return 0;
    JavaCall java(env);
    const ArrayCopy pcm = java.copyIn(input);
    if (!pcm || pcm.size < int64_t{engine->frameSize} * engine->channels * 2) return 0;
    const int size = engine->encode(pcm.as<short>());
    if (size <= 0) return 0;
    java.copyOut(output, engine->packet.get(), size);
    return size;
}

JNIEXPORT jint JNICALL Java_com_kelvane_media_transform_codec_NOpusEncoder_set(JNIEnv*, jclass, jint setting,
                                                                               jint value, jlong handle) {
    NOpusEncoder* engine = opus_enc_ctx.GetCoder(handle);
    return engine && engine->set(setting, value) ? 1 : 0;
}

JNIEXPORT jint JNICALL Java_com_kelvane_media_transform_codec_NOpusEncoder_packetSize(JNIEnv*, jclass,
                                                                                      jlong handle) {
    const NOpusEncoder* engine = opus_enc_ctx.GetCoder(handle);
    return engine ? engine->packetSize : 0;
}

JNIEXPORT void JNICALL Java_com_kelvane_media_transform_codec_NOpusEncoder_close(JNIEnv*, jclass,
                                                                                 jlong handle) {
    if (closeCodec(opus_enc_ctx, handle)) say.debug("Opus encoder codec closed\n");
}
