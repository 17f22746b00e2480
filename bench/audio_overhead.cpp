// What the sound engines cost through Java beside the same library calls in a bare loop: the process's CPU
// time of both, taken in turns, on a minute of stereo sound (for MP3: a test vector, over and over).
//
//   audio_overhead [ROUNDS]

#include "bridge/Owners.h"

extern "C" {
#include <libavformat/avformat.h>
}

#include <jni.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <functional>
#include <string>
#include <vector>

// The audio calls of FFmpeg 4 that the engines make are deprecated there.
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"

namespace {

using Bytes = std::vector<uint8_t>;
using Packets = std::vector<Bytes>;

constexpr int sampleRate = 48000;
constexpr int seconds = 60;

[[noreturn]] void fail(const char* what) {
    std::fprintf(stderr, "audio_overhead: %s\n", what);
    std::exit(1);
}

// Chords that change four times a second, with noise, as PCM in blocks of `samples` per channel.
Packets sound(int samples) {
    Packets blocks;
    uint32_t random = 1;
    for (int at = 0; at + samples <= seconds * sampleRate; at += samples) {
        Bytes block(static_cast<size_t>(samples) * 4);
        auto* pcm = reinterpret_cast<int16_t*>(block.data());
        for (int i = 0; i < samples; ++i) {
            const double t = 2 * M_PI * (at + i) / sampleRate;
            const double pitch = 220 * std::pow(2, (at + i) / (sampleRate / 4) * 7 % 12 / 12.0);
            random = random * 1664525 + 1013904223;
            const double noise = (random >> 16) / 40.0;
            pcm[2 * i] =
                static_cast<int16_t>(6000 * std::sin(pitch * t) + 3000 * std::sin(3.01 * pitch * t) + noise);
            pcm[2 * i + 1] =
                static_cast<int16_t>(6000 * std::sin(1.5 * pitch * t) + 2000 * std::sin(7 * t) * noise / 800);
        }
        blocks.push_back(block);
    }
    return blocks;
}

Packets mp3Frames() {
    AVFormatContext* file = nullptr;
    if (avformat_open_input(&file, TEST_DATA "/stereo.mp3", nullptr, nullptr) < 0) fail("no stereo.mp3");
    Packets vector, frames;
    AVPacket packet;
    while (av_read_frame(file, &packet) == 0) {
        vector.emplace_back(packet.data, packet.data + packet.size);
        av_packet_unref(&packet);
    }
    avformat_close_input(&file);
    while (frames.size() * 1152 < size_t{seconds} * 44100)
        frames.insert(frames.end(), vector.begin(), vector.end());
    return frames;
}

ResamplerOwner resampler(AVSampleFormat from, AVSampleFormat to) {
    ResamplerOwner owner(swr_alloc_set_opts(nullptr, AV_CH_LAYOUT_STEREO, to, sampleRate, AV_CH_LAYOUT_STEREO,
                                            from, sampleRate, 0, nullptr));
    if (!owner || swr_init(owner.get()) < 0) fail("no resampler");
    return owner;
}

FrameOwner audioFrame(AVSampleFormat format, int samples) {
    FrameOwner frame(av_frame_alloc());
    frame->format = format;
    frame->channel_layout = AV_CH_LAYOUT_STEREO;
    frame->channels = 2;
    frame->sample_rate = sampleRate;
    frame->nb_samples = samples;
    av_frame_get_buffer(frame.get(), 0);
    return frame;
}

Packets encodeAac(const Packets& blocks, Bytes* config) {
    const AVCodec* codec = avcodec_find_encoder(AV_CODEC_ID_AAC);
    const CodecContextOwner context(avcodec_alloc_context3(codec));
    context->sample_rate = sampleRate;
    context->channels = 2;
    context->channel_layout = AV_CH_LAYOUT_STEREO;
    context->sample_fmt = AV_SAMPLE_FMT_FLTP;
    context->profile = FF_PROFILE_AAC_LOW;
    context->bit_rate = 64000;
    if (avcodec_open2(context.get(), codec, nullptr) < 0) fail("no AAC encoder");
    config->assign(context->extradata, context->extradata + context->extradata_size);
    const ResamplerOwner converter = resampler(AV_SAMPLE_FMT_S16, AV_SAMPLE_FMT_FLTP);
    const FrameOwner frame = audioFrame(AV_SAMPLE_FMT_FLTP, 1024);
    Packets units;
    for (const Bytes& block : blocks) {
        const uint8_t* pcm = block.data();
        swr_convert(converter.get(), frame->extended_data, 1024, &pcm, 1024);
        AVPacket packet{};
        int got = 0;
        avcodec_encode_audio2(context.get(), &packet, frame.get(), &got);
        if (got) units.emplace_back(packet.data, packet.data + packet.size);
        av_packet_unref(&packet);
    }
    return units;
}

void decodeWithFFmpeg(AVCodecID id, const Bytes& config, const Packets& packets, SwrContext* converter) {
    const AVCodec* codec = avcodec_find_decoder(id);
    const CodecContextOwner context(avcodec_alloc_context3(codec));
    context->extradata = static_cast<uint8_t*>(av_mallocz(config.size() + AV_INPUT_BUFFER_PADDING_SIZE));
    context->extradata_size = static_cast<int>(config.size());
    std::copy(config.begin(), config.end(), context->extradata);
    if (avcodec_open2(context.get(), codec, nullptr) < 0) fail("no decoder");
    const FrameOwner frame(av_frame_alloc());
    const FrameOwner converted = audioFrame(AV_SAMPLE_FMT_S16, 1024);
    for (const Bytes& bytes : packets) {
        AVPacket packet;
        av_init_packet(&packet);
        packet.data = const_cast<uint8_t*>(bytes.data());
        packet.size = static_cast<int>(bytes.size());
        int got = 0;
        avcodec_decode_audio4(context.get(), frame.get(), &got, &packet);
        if (got && converter) swr_convert_frame(converter, converted.get(), frame.get());
    }
}

Packets encodeOpus(const Packets& frames) {
    const OpusEncoderOwner encoder(opus_encoder_create(sampleRate, 2, OPUS_APPLICATION_AUDIO, nullptr));
    opus_encoder_ctl(encoder.get(), OPUS_SET_BITRATE(64000));
    opus_encoder_ctl(encoder.get(), OPUS_SET_SIGNAL(OPUS_SIGNAL_MUSIC));
    opus_encoder_ctl(encoder.get(), OPUS_SET_BANDWIDTH(OPUS_BANDWIDTH_FULLBAND));
    opus_encoder_ctl(encoder.get(), OPUS_SET_COMPLEXITY(10));
    opus_encoder_ctl(encoder.get(), OPUS_SET_EXPERT_FRAME_DURATION(OPUS_FRAMESIZE_20_MS));
    opus_encoder_ctl(encoder.get(), OPUS_SET_FORCE_CHANNELS(2));
    opus_encoder_ctl(encoder.get(), OPUS_SET_VBR(0));
    Packets packets;
    uint8_t packet[3828];
    for (const Bytes& frame : frames) {
        const int size = opus_encode(encoder.get(), reinterpret_cast<const opus_int16*>(frame.data()), 960,
                                     packet, sizeof packet);
        if (size > 0) packets.emplace_back(packet, packet + size);
    }
    return packets;
}

void decodeOpus(const Packets& packets) {
    const OpusDecoderOwner decoder(opus_decoder_create(sampleRate, 2, nullptr));
    opus_int16 pcm[5760 * 2];
    for (const Bytes& packet : packets)
        if (opus_decode(decoder.get(), packet.data(), static_cast<int>(packet.size()), pcm, 5760, 0) <= 0)
            fail("an Opus packet was refused");
}

double cpuMilliseconds(const std::function<void()>& action) {
    const auto now = [] {
        timespec time{};
        clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &time);
        return static_cast<double>(time.tv_sec) * 1e3 + static_cast<double>(time.tv_nsec) / 1e6;
    };
    const double start = now();
    action();
    return now() - start;
}

class Java {
public:
    Java() {
        // A young generation that is filled time and again: one that is not makes every new array a page fault,
        // which a server sees in its first minute only.
        std::string options[] = {"-Djava.class.path=" BENCH_CLASS_PATH, "-Dkelvane.library=" NATIVE_LIBRARY,
                                 "-Xmn16m"};
        JavaVMOption javaOptions[std::size(options)] = {};
        for (size_t i = 0; i < std::size(options); ++i)
            javaOptions[i].optionString = options[i].data();
        JavaVMInitArgs arguments{JNI_VERSION_10, static_cast<jint>(std::size(options)), javaOptions, JNI_FALSE};
        JavaVM* machine = nullptr;
        if (JNI_CreateJavaVM(&machine, reinterpret_cast<void**>(&env), &arguments) != JNI_OK)
            fail("no Java virtual machine");
        loops = env->FindClass("com/kelvane/media/bench/AudioLoops");
        if (!loops) fail("no class AudioLoops");
    }
    jbyteArray array(const Bytes& bytes) {
        const auto size = static_cast<jsize>(bytes.size());
        jbyteArray array = env->NewByteArray(size);
        env->SetByteArrayRegion(array, 0, size, reinterpret_cast<const jbyte*>(bytes.data()));
        return array;
    }
    jobjectArray arrays(const Packets& packets) {
        jobjectArray array =
            env->NewObjectArray(static_cast<jsize>(packets.size()), env->FindClass("[B"), nullptr);
        for (size_t i = 0; i < packets.size(); ++i) {
            jbyteArray element = this->array(packets[i]);
            env->SetObjectArrayElement(array, static_cast<jsize>(i), element);
            env->DeleteLocalRef(element);
        }
        return array;
    }
    template <class... Arguments>
    void call(const char* method, const char* signature, Arguments... arguments) {
        env->CallStaticVoidMethod(loops, env->GetStaticMethodID(loops, method, signature), arguments...);
        if (env->ExceptionCheck()) {
            env->ExceptionDescribe();
            fail(method);
        }
    }

private:
    JNIEnv* env = nullptr;
    jclass loops = nullptr;
};

} // namespace

int main(int argumentCount, char** arguments) {
    const int rounds = argumentCount > 1 ? std::max(1, std::atoi(arguments[1])) : 11;
    av_log_set_level(AV_LOG_QUIET);
    Java java;
    Bytes config;
    const Packets blocks = sound(1024), frames = sound(960), mp3 = mp3Frames();
    const Packets units = encodeAac(blocks, &config), packets = encodeOpus(frames);
    const ResamplerOwner converter = resampler(AV_SAMPLE_FMT_FLTP, AV_SAMPLE_FMT_S16);
    jbyteArray javaConfig = java.array(config);
    jobjectArray javaBlocks = java.arrays(blocks), javaFrames = java.arrays(frames),
                 javaMp3 = java.arrays(mp3), javaUnits = java.arrays(units),
                 javaPackets = java.arrays(packets);
    const struct {
        const char* name;
        std::function<void()> bare, throughJava;
    } engines[] = {
        {"AAC decoder", [&] { decodeWithFFmpeg(AV_CODEC_ID_AAC, config, units, converter.get()); },
         [&] { java.call("decodeAac", "([B[[B)V", javaConfig, javaUnits); }},
        {"AAC encoder", [&] { encodeAac(blocks, &config); },
         [&] { java.call("encodeAac", "(I[[B)V", sampleRate, javaBlocks); }},
        {"MP3 decoder", [&] { decodeWithFFmpeg(AV_CODEC_ID_MP3, {}, mp3, nullptr); },
         [&] { java.call("decodeMp3", "([[B)V", javaMp3); }},
        {"Opus decoder", [&] { decodeOpus(packets); },
         [&] { java.call("decodeOpus", "([[B)V", javaPackets); }},
        {"Opus encoder", [&] { encodeOpus(frames); },
         [&] { java.call("encodeOpus", "(I[[B)V", 64000, javaFrames); }},
    };
    for (const auto& engine : engines) {
        // The least of all rounds: what other processes do to the caches only adds.
        double bare = HUGE_VAL, throughJava = HUGE_VAL;
        for (int round = 0; round < rounds; ++round) {
            bare = std::min(bare, cpuMilliseconds(engine.bare));
            throughJava = std::min(throughJava, cpuMilliseconds(engine.throughJava));
        }
        std::fprintf(stderr, "%-12s  bare %7.1f ms  through Java %7.1f ms  %+5.1f %%\n", engine.name, bare,
                     throughJava, 100 * (throughJava / bare - 1));
    }
}
