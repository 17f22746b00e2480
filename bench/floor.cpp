// The floor of the benchmarks: the calls that the library makes of FFmpeg, OpenH264 and Opus, in bare loops
// with nothing around them. It works on commands, a line each on standard input, and answers each with a
// line:
//
//   KIND MEASURE LAPS PACKETS [ARGUMENT...]
//       so many passes in the same engines over a file of packets, each behind its size (big-endian, 4 bytes)
//   loop COUNTER PICTURES PACKETS [ARGUMENT...]
//       a ladder of the same pictures over and over, for ever; COUNTER, a FILE:OFFSET, has 8 bytes for their
//       number, and 8 bytes that it waits for behind so many pictures, until they are not 0
//   run MILLISECONDS PROGRAM ARGUMENT...
//       another program
//
// MEASURE is "check" for a checksum of all that came out, or the number of packets after which the pass
// answers "more" and waits for an empty line, as others take their turns; 0 for none. Another program is
// stopped and answered for alike, by time. At the end of each lap: "lap", nanoseconds of CPU, nanoseconds by
// the clock. The answer: both for all laps with opening and closing, units that came out, their bytes, the
// checksum.

#include "bridge/Owners.h"
#include "video/I420.h"

#include <wels/codec_api.h>

extern "C" {
#include <libavutil/imgutils.h>
}

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>
#include <zlib.h>

#include <atomic>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <iostream>
#include <iterator>
#include <map>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

// The calls of FFmpeg 4 that the library makes are deprecated there.
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"

namespace {

using Bytes = std::vector<uint8_t>;
using Packets = std::vector<Bytes>;

constexpr int sampleRate = 48000;

[[noreturn]] void fail(const std::string& what) {
    std::fprintf(stderr, "floor: %s\n", what.c_str());
    std::exit(1);
}

int64_t nanoseconds(clockid_t clock) {
    timespec time{};
    clock_gettime(clock, &time);
    return int64_t{time.tv_sec} * 1'000'000'000 + time.tv_nsec;
}

void awaitTurn() {
    std::puts("more");
    std::fflush(stdout);
    std::string line;
    if (!std::getline(std::cin, line)) std::exit(0);
}

// What a pass took and what came out of it.
class Output {
public:
    explicit Output(const std::string& measure, int lapCount = 1)
        : laps(lapCount), checking(measure == "check"), slice(std::atoi(measure.c_str())) {
        go();
    }
    // Calls for each packet of each lap; without an end when laps are counted in pictures.
    template <class Receiver>
    void forEach(const Packets& packets, const Receiver& receive) {
        halt();
        for (int lap = 0; counter || lap < laps; ++lap) {
            const Times before = times;
            go();
            for (const Bytes& packet : packets) {
                turn();
                receive(packet);
                if (counter) count();
            }
            halt();
            if (counter) continue;
            std::printf("lap %ld %ld\n", static_cast<long>(times.cpu - before.cpu),
                        static_cast<long>(times.wall - before.wall));
            std::fflush(stdout);
        }
        go();
    }
    void halt() {
        times.cpu += nanoseconds(CLOCK_THREAD_CPUTIME_ID);
        times.wall += nanoseconds(CLOCK_MONOTONIC);
    }
    void add(const void* data, size_t size) {
        ++units;
        bytes += size;
        if (checking) sum = crc32(sum, static_cast<const Bytef*>(data), static_cast<uInt>(size));
    }
    struct Times {
        int64_t cpu = 0, wall = 0; // nanoseconds
    };
    Times times; // while the clocks run, less the moment at which they began
    uint64_t units = 0, bytes = 0;
    uLong sum = 0;
    struct Counter {
        std::atomic<int64_t> pictures, go;
    };
    Counter* counter = nullptr;

private:
    void go() {
        times.cpu -= nanoseconds(CLOCK_THREAD_CPUTIME_ID);
        times.wall -= nanoseconds(CLOCK_MONOTONIC);
    }
    void count() {
        if (++counter->pictures == laps)
            while (counter->go == 0)
                usleep(1000);
    }
    void turn() {
        if (slice == 0 || packetsDone++ % slice != 0 || packetsDone == 1) return;
        halt();
        awaitTurn();
        go();
    }

    int laps;
    bool checking;
    int slice, packetsDone = 0;
};

Packets readPackets(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    const Bytes all(std::istreambuf_iterator<char>(file), {});
    Packets packets;
    for (size_t at = 0; at + 4 <= all.size();) {
        const size_t size =
            size_t{all[at]} << 24 | size_t{all[at + 1]} << 16 | size_t{all[at + 2]} << 8 | all[at + 3];
        at += 4;
        if (size > all.size() - at) fail(path + " ends within a packet");
        packets.emplace_back(all.begin() + static_cast<ptrdiff_t>(at),
                             all.begin() + static_cast<ptrdiff_t>(at + size));
        at += size;
    }
    if (packets.empty()) fail("no packets in " + path);
    return packets;
}

// Each picture of the stream, the last ones included.
template <class Receiver>
void decodePictures(const Packets& units, Output& output, const Receiver& receive) {
    const AVCodec* codec = avcodec_find_decoder(AV_CODEC_ID_H264);
    const CodecContextOwner context(avcodec_alloc_context3(codec));
    context->flags2 |= AV_CODEC_FLAG2_CHUNKS;
    context->flags |= AV_CODEC_FLAG_TRUNCATED;
    if (avcodec_open2(context.get(), codec, nullptr) < 0) fail("no H.264 decoder");
    const FrameOwner picture(av_frame_alloc());
    int got = 0;
    int64_t milliseconds = 0;
    output.forEach(units, [&](const Bytes& unit) {
        AVPacket packet;
        if (av_new_packet(&packet, static_cast<int>(unit.size())) < 0) fail("no memory");
        std::memcpy(packet.data, unit.data(), unit.size());
        packet.pts = 1000 * milliseconds;
        milliseconds += 33;
        avcodec_decode_video2(context.get(), picture.get(), &got, &packet);
        av_packet_unref(&packet);
        if (got) receive(*picture);
    });
    do {
        AVPacket packet{};
        av_init_packet(&packet);
        avcodec_decode_video2(context.get(), picture.get(), &got, &packet);
        if (got) receive(*picture);
    } while (got);
}

struct OpenH264 {
    int (*createEncoder)(ISVCEncoder**) = nullptr;
    void (*destroyEncoder)(ISVCEncoder*) = nullptr;
    explicit OpenH264(const std::string& path) {
        void* library = dlopen(path.c_str(), RTLD_NOW);
        if (!library) fail(dlerror());
        createEncoder = reinterpret_cast<int (*)(ISVCEncoder**)>(dlsym(library, "WelsCreateSVCEncoder"));
        destroyEncoder = reinterpret_cast<void (*)(ISVCEncoder*)>(dlsym(library, "WelsDestroySVCEncoder"));
    }
};

class Rendition {
public:
    Rendition(OpenH264& openH264, int renditionWidth, int renditionHeight, int bitrate, int fps)
        : library(openH264), width(renditionWidth), height(renditionHeight) {
        if (library.createEncoder(&encoder) != 0) fail("no encoder");
        SEncParamExt param{};
        encoder->GetDefaultParams(&param);
        param.iUsageType = CAMERA_VIDEO_REAL_TIME;
        param.fMaxFrameRate = static_cast<float>(fps);
        param.iPicWidth = width;
        param.iPicHeight = height;
        param.iTargetBitrate = param.iMaxBitrate = bitrate;
        param.iRCMode = RC_BITRATE_MODE;
        param.iTemporalLayerNum = param.iSpatialLayerNum = 1;
        param.bEnableDenoise = param.bEnableBackgroundDetection = param.bEnableAdaptiveQuant = false;
        param.bEnableFrameSkip = param.bPrefixNalAddingCtrl = false;
        param.uiIntraPeriod = static_cast<unsigned int>(2 * fps);
        param.eSpsPpsIdStrategy = CONSTANT_ID;
        param.iLoopFilterDisableIdc = 1;
        param.iLtrMarkPeriod = 30;
        param.iMultipleThreadIdc = 1;
        SSpatialLayerConfig& layer = param.sSpatialLayers[0];
        layer.iVideoWidth = width;
        layer.iVideoHeight = height;
        layer.fFrameRate = param.fMaxFrameRate;
        layer.iSpatialBitrate = layer.iMaxSpatialBitrate = bitrate;
        layer.sSliceArgument.uiSliceMode = SM_SINGLE_SLICE;
        if (encoder->InitializeExt(&param) != 0) fail("OpenH264 refuses a rendition");
        frame.reset(av_frame_alloc());
        if (av_image_alloc(frame->data, frame->linesize, width, height, AV_PIX_FMT_YUV420P, 32) < 0)
            fail("no memory");
    }
    ~Rendition() {
        if (encoder) library.destroyEncoder(encoder);
    }
    Rendition(Rendition&& other) noexcept
        : library(other.library), width(other.width), height(other.height),
          encoder(std::exchange(other.encoder, nullptr)), frame(std::move(other.frame)),
          scaler(std::move(other.scaler)) {}

    void encode(const AVFrame& picture, Output& output) {
        const AVFrame* scaled = &picture;
        if (picture.width != width || picture.height != height) {
            if (!scaler)
                scaler.reset(sws_getContext(picture.width, picture.height, AV_PIX_FMT_YUV420P, width, height,
                                            AV_PIX_FMT_YUV420P, 0, nullptr, nullptr, nullptr));
            sws_scale(scaler.get(), picture.data, picture.linesize, 0, picture.height, frame->data,
                      frame->linesize);
            scaled = frame.get();
        }
        SSourcePicture source{};
        source.iColorFormat = videoFormatI420;
        source.iPicWidth = width;
        source.iPicHeight = height;
        source.uiTimeStamp = picture.pkt_pts / 1000;
        for (int plane = 0; plane < 3; ++plane) {
            source.pData[plane] = scaled->data[plane];
            source.iStride[plane] = scaled->linesize[plane];
        }
        SFrameBSInfo encoded{};
        if (encoder->EncodeFrame(&source, &encoded) != 0 || encoded.iFrameSizeInBytes <= 0) return;
        // The layers lie one behind the other.
        output.add(encoded.sLayerInfo[0].pBsBuf, static_cast<size_t>(encoded.iFrameSizeInBytes));
    }

private:
    OpenH264& library;
    int width, height;
    ISVCEncoder* encoder = nullptr;
    ImageFrameOwner frame;
    ScalerOwner scaler;
};

// ladder PACKETS LIBOPENH264 FPS WIDTHxHEIGHT@BITRATE...
void ladder(const Packets& units, std::istream& arguments, Output& output) {
    std::string path, size;
    int fps = 0;
    arguments >> path >> fps;
    static OpenH264 library(path);
    std::vector<Rendition> renditions;
    while (arguments >> size) {
        int width = 0, height = 0, bitrate = 0;
        if (std::sscanf(size.c_str(), "%dx%d@%d", &width, &height, &bitrate) != 3)
            fail("what rendition is " + size);
        renditions.emplace_back(library, width, height, bitrate, fps);
    }
    decodePictures(units, output, [&](const AVFrame& picture) {
        for (Rendition& rendition : renditions)
            rendition.encode(picture, output);
    });
}

// The picture in one piece, as Java gets it: decoding plus one copy.
void decode(const Packets& units, std::istream&, Output& output) {
    Bytes packed;
    decodePictures(units, output, [&](const AVFrame& picture) {
        packed.resize(static_cast<size_t>(packedPictureSize(picture.width, picture.height)));
        av_image_copy_to_buffer(packed.data(), static_cast<int>(packed.size()), picture.data,
                                picture.linesize, AV_PIX_FMT_YUV420P, picture.width, picture.height, 1);
        output.add(packed.data(), packed.size());
    });
}

// pipeline PACKETS FPS BITRATE: FFmpeg's own OpenH264 encoder, on the decoder's pictures.
void pipeline(const Packets& units, std::istream& arguments, Output& output) {
    int fps = 0, bitrate = 0;
    arguments >> fps >> bitrate;
    const AVCodec* codec = avcodec_find_encoder_by_name("libopenh264");
    CodecContextOwner context;
    ImageFrameOwner frame;
    decodePictures(units, output, [&](const AVFrame& picture) {
        if (!context) {
            context.reset(avcodec_alloc_context3(codec));
            context->bit_rate = bitrate;
            context->width = picture.width;
            context->height = picture.height;
            context->time_base = {1, fps};
            context->gop_size = 2 * fps;
            context->max_b_frames = 0;
            context->pix_fmt = AV_PIX_FMT_YUV420P;
            context->ticks_per_frame = 2;
            if (avcodec_open2(context.get(), codec, nullptr) < 0) fail("FFmpeg opens no OpenH264 encoder");
            frame.reset(av_frame_alloc());
            frame->format = AV_PIX_FMT_YUV420P;
            frame->width = picture.width;
            frame->height = picture.height;
            av_image_alloc(frame->data, frame->linesize, picture.width, picture.height, AV_PIX_FMT_YUV420P,
                           32);
        }
        // A module may change the picture, which the decoder still refers to.
        av_image_copy(frame->data, frame->linesize, const_cast<const uint8_t**>(picture.data),
                      picture.linesize, AV_PIX_FMT_YUV420P, picture.width, picture.height);
        frame->pts = picture.pkt_pts;
        AVPacket packet;
        av_init_packet(&packet);
        packet.data = nullptr;
        packet.size = 0;
        int got = 0;
        if (avcodec_encode_video2(context.get(), &packet, frame.get(), &got) == 0 && got)
            output.add(packet.data, static_cast<size_t>(packet.size));
        av_packet_unref(&packet);
    });
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
    if (av_frame_get_buffer(frame.get(), 0) < 0) fail("no memory");
    return frame;
}

// Each frame of sound. Packets are followed by room for FFmpeg to read on.
template <class Receiver>
void decodeSound(const AVCodec* codec, const Bytes& config, const Packets& packets, Output& output,
                 const Receiver& receive) {
    const CodecContextOwner context(avcodec_alloc_context3(codec));
    context->extradata = static_cast<uint8_t*>(av_mallocz(config.size() + AV_INPUT_BUFFER_PADDING_SIZE));
    context->extradata_size = static_cast<int>(config.size());
    std::copy(config.begin(), config.end(), context->extradata);
    if (avcodec_open2(context.get(), codec, nullptr) < 0) fail("no decoder");
    const FrameOwner frame(av_frame_alloc());
    output.forEach(packets, [&](const Bytes& bytes) {
        AVPacket packet;
        av_init_packet(&packet);
        packet.data = const_cast<uint8_t*>(bytes.data());
        packet.size = static_cast<int>(bytes.size());
        int got = 0;
        avcodec_decode_audio4(context.get(), frame.get(), &got, &packet);
        if (got) receive(*frame);
    });
}

void decodeAac(const Packets& units, std::istream&, Output& output) {
    const ResamplerOwner converter = resampler(AV_SAMPLE_FMT_FLTP, AV_SAMPLE_FMT_S16);
    const FrameOwner converted = audioFrame(AV_SAMPLE_FMT_S16, 1024);
    const Bytes stereo48kHz{0x11, 0x90};
    decodeSound(avcodec_find_decoder(AV_CODEC_ID_AAC), stereo48kHz, units, output, [&](const AVFrame& frame) {
        converted->nb_samples = 1024;
        if (swr_convert_frame(converter.get(), converted.get(), &frame) == 0)
            output.add(converted->data[0], static_cast<size_t>(converted->nb_samples) * 4);
    });
}

void decodeMp3(const Packets& frames, std::istream&, Output& output) {
    std::vector<int16_t> pcm(2 * 1152);
    decodeSound(avcodec_find_decoder_by_name("mp3"), {}, frames, output, [&](const AVFrame& frame) {
        const auto* left = reinterpret_cast<const int16_t*>(frame.data[0]);
        const auto* right = reinterpret_cast<const int16_t*>(frame.data[1]);
        for (size_t i = 0; i < static_cast<size_t>(frame.nb_samples); ++i) {
            pcm[2 * i] = left[i];
            pcm[2 * i + 1] = right[i];
        }
        output.add(pcm.data(), static_cast<size_t>(frame.nb_samples) * 4);
    });
}

void encodeAac(const Packets& blocks, std::istream&, Output& output) {
    const AVCodec* codec = avcodec_find_encoder(AV_CODEC_ID_AAC);
    const CodecContextOwner context(avcodec_alloc_context3(codec));
    context->sample_rate = sampleRate;
    context->time_base = {1, sampleRate};
    context->channels = 2;
    context->channel_layout = AV_CH_LAYOUT_STEREO;
    context->sample_fmt = AV_SAMPLE_FMT_FLTP;
    context->profile = FF_PROFILE_AAC_LOW;
    context->bit_rate = 64000;
    if (avcodec_open2(context.get(), codec, nullptr) < 0) fail("no AAC encoder");
    const ResamplerOwner converter = resampler(AV_SAMPLE_FMT_S16, AV_SAMPLE_FMT_FLTP);
    const FrameOwner frame = audioFrame(AV_SAMPLE_FMT_FLTP, 1024);
    output.forEach(blocks, [&](const Bytes& block) {
        const uint8_t* pcm = block.data();
        swr_convert(converter.get(), frame->extended_data, 1024, &pcm, 1024);
        AVPacket packet{};
        int got = 0;
        avcodec_encode_audio2(context.get(), &packet, frame.get(), &got);
        if (got) output.add(packet.data, static_cast<size_t>(packet.size));
        av_packet_unref(&packet);
    });
}

void encodeOpus(const Packets& frames, std::istream&, Output& output) {
    const OpusEncoderOwner encoder(opus_encoder_create(sampleRate, 2, OPUS_APPLICATION_AUDIO, nullptr));
    opus_encoder_ctl(encoder.get(), OPUS_SET_BITRATE(64000));
    opus_encoder_ctl(encoder.get(), OPUS_SET_SIGNAL(OPUS_SIGNAL_MUSIC));
    opus_encoder_ctl(encoder.get(), OPUS_SET_BANDWIDTH(OPUS_BANDWIDTH_FULLBAND));
    opus_encoder_ctl(encoder.get(), OPUS_SET_COMPLEXITY(10));
    opus_encoder_ctl(encoder.get(), OPUS_SET_EXPERT_FRAME_DURATION(OPUS_FRAMESIZE_20_MS));
    opus_encoder_ctl(encoder.get(), OPUS_SET_FORCE_CHANNELS(2));
    opus_encoder_ctl(encoder.get(), OPUS_SET_VBR(0));
    uint8_t packet[3828];
    output.forEach(frames, [&](const Bytes& frame) {
        const int size = opus_encode(encoder.get(), reinterpret_cast<const opus_int16*>(frame.data()), 960,
                                     packet, sizeof packet);
        if (size > 0) output.add(packet, static_cast<size_t>(size));
    });
}

void decodeOpus(const Packets& packets, std::istream&, Output& output) {
    const OpusDecoderOwner decoder(opus_decoder_create(sampleRate, 2, nullptr));
    std::vector<opus_int16> pcm(5760 * 2);
    output.forEach(packets, [&](const Bytes& packet) {
        const int samples =
            opus_decode(decoder.get(), packet.data(), static_cast<int>(packet.size()), pcm.data(), 5760, 0);
        if (samples > 0) output.add(pcm.data(), static_cast<size_t>(samples) * 4);
    });
}

using Pass = void (*)(const Packets&, std::istream&, Output&);
const std::map<std::string, Pass> passes = {
    {"ladder", ladder},           {"decode", decode},           {"pipeline", pipeline},
    {"aac-decoder", decodeAac},   {"aac-encoder", encodeAac},   {"mp3-decoder", decodeMp3},
    {"opus-decoder", decodeOpus}, {"opus-encoder", encodeOpus},
};

// The CPU time of another program, with what it prints thrown away.
Output run(std::istream& arguments) {
    Output output("0");
    int slice = 0; // milliseconds
    arguments >> slice;
    std::vector<std::string> words(std::istream_iterator<std::string>(arguments), {});
    std::vector<char*> argv;
    for (std::string& word : words)
        argv.push_back(word.data());
    argv.push_back(nullptr);
    const pid_t child = fork();
    if (child == 0) {
        if (!std::freopen("/dev/null", "r", stdin) || !std::freopen("/dev/null", "w", stdout)) _exit(1);
        execv(argv[0], argv.data());
        _exit(127);
    }
    int status = 0;
    rusage usage{};
    int64_t begun = nanoseconds(CLOCK_MONOTONIC);
    while (wait4(child, &status, slice ? WNOHANG : 0, &usage) == 0) {
        usleep(10'000); // rarely, as what looks here takes turns with the program on one processor
        if (nanoseconds(CLOCK_MONOTONIC) - begun < int64_t{slice} * 1'000'000) continue;
        kill(child, SIGSTOP);
        awaitTurn();
        kill(child, SIGCONT);
        begun = nanoseconds(CLOCK_MONOTONIC);
    }
    if (status != 0) fail(words.at(0) + " failed");
    const auto spent = [](const timeval& time) {
        return (int64_t{time.tv_sec} * 1'000'000 + time.tv_usec) * 1000;
    };
    output.halt();
    output.times.cpu = spent(usage.ru_utime) + spent(usage.ru_stime);
    return output;
}

// Does not return.
[[noreturn]] void loop(const std::string& counter, int pictures, const Packets& units,
                       const std::string& arguments) {
    const size_t colon = counter.rfind(':');
    const int file = open(counter.substr(0, colon).c_str(), O_RDWR);
    void* memory = mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
    if (memory == MAP_FAILED) fail("no counters in " + counter);
    Output output("0", pictures);
    output.counter = reinterpret_cast<Output::Counter*>(static_cast<char*>(memory) +
                                                        std::stoul(counter.substr(colon + 1)));
    std::istringstream words(arguments);
    ladder(units, words, output);
    fail("for ever is over");
}

} // namespace

int main() {
    av_log_set_level(AV_LOG_QUIET);
    std::map<std::string, Packets> files;
    for (std::string line; std::getline(std::cin, line);) {
        std::istringstream words(line);
        std::string kind, measure, path;
        words >> kind;
        Output output("0");
        if (kind == "run") {
            output = run(words);
        } else {
            int laps = 1;
            words >> measure >> laps >> path;
            if (!files.contains(path)) files[path] = readPackets(path);
            if (kind == "loop")
                loop(measure, laps, files[path], std::string(std::istreambuf_iterator<char>(words), {}));
            const auto pass = passes.find(kind);
            if (pass == passes.end()) fail("what is " + kind);
            output = Output(measure, laps);
            pass->second(files[path], words, output);
            output.halt();
        }
        std::printf("%ld %ld %lu %lu %lu\n", static_cast<long>(output.times.cpu),
                    static_cast<long>(output.times.wall), output.units, output.bytes, output.sum);
        std::fflush(stdout);
    }
}
