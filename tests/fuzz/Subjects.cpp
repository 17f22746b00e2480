#include "fuzz/Subjects.h"

#include "audio/AACDecoder.h"
#include "audio/AACEncoder.h"
#include "audio/MP3AudioDecoder.h"
#include "audio/NOpusDecoder.h"
#include "audio/NOpusEncoder.h"
#include "audio/PcmResampler.h"
#include "bridge/Registries.h"
#include "bridge/StartCodes.h"
#include "com_kelvane_media_Tarnwick.h"
#include "com_kelvane_media_transform_codec_AVCProcessor.h"
#include "container/Muxer.h"
#include "fuzz/FakeJava.h"
#include "modules/recording_module.h"
#include "processor/AVCProcessor.h"
#include "transcoder/CoderOut.h"
#include "video/AVCDecoder.h"
#include "video/I420.h"

extern "C" {
#include <libavformat/avformat.h>
}

#include <dlfcn.h>

#include <algorithm>
#include <climits>
#include <cstring>
#include <fstream>
#include <iterator>
#include <string_view>

namespace {

uint64_t hashOf(const void* bytes, int64_t size, uint32_t time = 0) {
    if (size <= 0) return 0;
    const std::string_view view(static_cast<const char*>(bytes), static_cast<size_t>(size));
    return std::hash<std::string_view>()(view) + time * 0x9E3779B97F4A7C15;
}

signed char* input(const Bytes& bytes) {
    return const_cast<signed char*>(reinterpret_cast<const signed char*>(bytes.data()));
}

int sizeOf(const Bytes& bytes) { return static_cast<int>(bytes.size()); }

uint64_t hashOf(const VideoDecoder& decoder) {
    const AVFrame& picture = *decoder.frame;
    const MallocBuffer packed = packPicture(picture);
    return packed
               ? hashOf(packed.get(), packedPictureSize(picture.width, picture.height), decoder.pictureTime)
               : 0;
}

// Most have one engine and nothing else.
template <class Engine>
class EngineSubject : public Subject {
public:
    void open(const Script&) override { engine.open(); }
    void close() override { engine.close(); }

protected:
    Engine engine;
};

class DecoderSubject final : public EngineSubject<VideoDecoder> {
public:
    uint64_t give(const Bytes& unit, uint32_t time) override {
        return engine.decode(input(unit), sizeOf(unit), time) == 1 ? hashOf(engine) : 0;
    }
    uint64_t drain() override { return engine.drain() == 1 ? hashOf(engine) : 0; }
};

class TranscoderSubject final : public Subject {
public:
    void open(const Script& script) override {
        const Choices& choices = script.choices;
        constexpr int sizes[][2] = {{0, 0},   {96, 80}, {160, 96}, {64, 64},
                                    {16, 16}, {0, 0},   {33, 17},  {2, 2}};
        decoder.open();
        for (size_t i = 0; i < std::size(outputs); ++i) {
            const auto& size = sizes[(i + choices[i]) % std::size(sizes)];
            outputs[i].width = size[0];
            outputs[i].height = size[1];
            outputs[i].bitrate = 200'000 + 1000 * choices[2];
            outputs[i].fps = 25;
            if (size[0] && choices[3] & 4) outputs[i].open();
        }
    }
    uint64_t give(const Bytes& unit, uint32_t time) override {
        return decoder.decode(input(unit), sizeOf(unit), time) == 1 ? encode() : 0;
    }
    uint64_t drain() override { return decoder.drain() == 1 ? encode() : 0; }
    void close() override {
        for (CoderOut& output : outputs)
            output.close();
        decoder.close();
    }

private:
    uint64_t encode() {
        uint64_t hash = 1;
        for (CoderOut& output : outputs)
            if (output.encode(decoder.frame.get()))
                hash = 31 * hash +
                       hashOf(output.coder->output.get(), output.coder->outputSize, decoder.pictureTime);
        return hash;
    }

    VideoDecoder decoder;
    CoderOut outputs[3];
};

unsigned int loadModule(const char* name) {
    const std::string path = std::string("modules/") + name + ".so";
    FakeObject text;
    text.bytes.assign(path.c_str(), path.c_str() + path.size() + 1);
    return static_cast<unsigned int>(Java_com_kelvane_media_transform_codec_AVCProcessor_loadLibrary(
        fakeJava(), nullptr, reinterpret_cast<jstring>(&text)));
}

// With a module that all pipelines may use at once or, when so chosen, with the recording one.
class PipelineSubject final : public Subject {
public:
    ~PipelineSubject() override { close(); }
    void open(const Script& script) override {
        const Choices& choices = script.choices;
        static const unsigned int everyOther = loadModule("every_other"), recorder = loadModule("recorder");
        pipeline = proc_ctx.NewProcessor();
        if (!pipeline) return;
        pipeline->decoder.reset(avc_dec_ctx.NewCodec());
        if (!pipeline->decoder) return;
        pipeline->decoder->open();
        pipeline->frameRate = choices[1];
        pipeline->bitRate = 300'000;
        pipeline->mode = choices[2] == 1 ? VideoProcessor::passThroughMode : uint8_t{3};
        pipeline->brew(choices[0] & 1 ? recorder : everyOther);
    }
    uint64_t give(const Bytes& unit, uint32_t time) override {
        if (!pipeline || !pipeline->decoder) return 0;
        int size = -1;
        if (pipeline->mode == VideoProcessor::passThroughMode) {
            MallocBuffer copy = mallocBuffer(unit.size());
            if (!copy) return 0;
            std::copy(unit.begin(), unit.end(), copy.get());
            pipeline->passThrough(std::move(copy), size = sizeOf(unit), time);
        } else {
            pipeline->process(input(unit), sizeOf(unit), time, size);
        }
        return taken(size);
    }
    uint64_t drain() override {
        if (!pipeline || !pipeline->decoder || pipeline->mode == VideoProcessor::passThroughMode) return 0;
        int size = -1;
        return pipeline->drain(size) ? taken(size) | 1 : 0;
    }
    void close() override {
        if (!pipeline) return;
        pipeline->unbrew();
        proc_ctx.RemoveProcessor(pipeline->handle);
        pipeline = nullptr;
        using Record = ModuleRecord* (*)();
        static const auto record =
            reinterpret_cast<Record>(dlsym(dlopen("modules/recorder.so", RTLD_LAZY), "moduleRecord"));
        if (!record()->calls.empty()) record()->calls = {};
    }

private:
    uint64_t taken(int size) const { return hashOf(pipeline->output.get(), size); }

    VideoProcessor* pipeline = nullptr;
};

class AacSubject final : public EngineSubject<AudioDecoder> {
public:
    void open(const Script& script) override {
        // What the native method lets through.
        const Bytes& config = script.config;
        if (config.size() < 2 || config.size() > sizeof engine.config) return;
        if ((config[0] & 7) * 2 + (config[1] >> 7) > 12) return;
        std::copy(config.begin(), config.end(), engine.config);
        engine.configSize = static_cast<uint8_t>(config.size());
        engine.open();
    }
    uint64_t give(const Bytes& packet, uint32_t) override {
        const MallocBuffer padded = mallocBuffer(packet.size() + AV_INPUT_BUFFER_PADDING_SIZE);
        if (!padded) return 0;
        std::copy(packet.begin(), packet.end(), padded.get());
        std::memset(padded.get() + packet.size(), 0, AV_INPUT_BUFFER_PADDING_SIZE);
        return engine.decode(padded.get(), sizeOf(packet)) > 0 ? hashOf(engine.output, engine.outputSize) : 0;
    }
};

class Mp3Subject final : public EngineSubject<MP3AudioDecoder> {
public:
    uint64_t give(const Bytes& packet, uint32_t) override {
        const int samples = engine.decode(reinterpret_cast<uint8_t*>(input(packet)), sizeOf(packet));
        return samples > 0 ? hashOf(engine.output.get(), engine.outputSize) : 0;
    }
};

class OpusSubject final : public EngineSubject<NOpusDecoder> {
public:
    void open(const Script& script) override {
        const Choices& choices = script.choices;
        engine.channels = 2 - choices[0] % 2;
        engine.fec = choices[1] % 3;
        copies = choices[2] % 49;
        engine.open();
    }
    uint64_t give(const Bytes& packet, uint32_t) override {
        if (!engine.decoder) return 0;
        const auto* bytes = reinterpret_cast<uint8_t*>(input(packet));
        // The packet before it counts as lost when so chosen.
        const bool lost = copies && NOpusDecoder::carriesFec(bytes, sizeOf(packet));
        if (lost) engine.decodeLost(120 * copies, bytes, sizeOf(packet));
        const int samples = engine.decode(reinterpret_cast<uint8_t*>(input(packet)), sizeOf(packet));
        return hashOf(engine.output.get(), int64_t{2} * samples * engine.channels);
    }

private:
    int copies = 0;
};

int choiceOf(const Choices& choices, size_t which, int first, int second, int third) {
    const int values[] = {first, second, third};
    return values[choices[which] % 3];
}

class AacEncoderSubject final : public EngineSubject<AudioEncoder> {
public:
    void open(const Script& script) override {
        const Choices& choices = script.choices;
        engine.channels = 2 - choices[0] % 2;
        engine.sampleRate = choiceOf(choices, 1, 44100, 8000, 44000);
        engine.open();
    }
    uint64_t give(const Bytes& pcm, uint32_t) override {
        if (sizeOf(pcm) < 2048 * engine.channels || !engine.codec) return 0;
        return hashOf(engine.output.get(), engine.encode(reinterpret_cast<short*>(input(pcm))));
    }
};

class OpusEncoderSubject final : public EngineSubject<NOpusEncoder> {
public:
    void open(const Script& script) override {
        const Choices& choices = script.choices;
        engine.channels = 2 - choices[0] % 2;
        engine.bitrate = choiceOf(choices, 1, 64000, 6000, 510000);
        engine.frameSize = choiceOf(choices, 2, 960, 120, 961);
        engine.open();
        if (!engine.encoder || choices[3] % 2 == 0) return;
        for (int request = OPUS_SET_APPLICATION_REQUEST; request <= OPUS_SET_EXPERT_FRAME_DURATION_REQUEST;
             request += 2)
            engine.set(request, request < OPUS_SET_FORCE_CHANNELS_REQUEST ? choices[3] / 2 % 3 : OPUS_AUTO);
    }
    uint64_t give(const Bytes& pcm, uint32_t) override {
        if (!engine.encoder || sizeOf(pcm) < engine.frameSize * engine.channels * 2) return 0;
        const int size = engine.encode(reinterpret_cast<short*>(input(pcm)));
        return engine.packetSize > 0 ? hashOf(engine.packet.get(), size) : 0;
    }
};

class ResamplerSubject final : public EngineSubject<PcmResampler> {
public:
    void open(const Script& script) override {
        const Choices& choices = script.choices;
        engine.input = {2 - choices[0] % 2, choiceOf(choices, 1, 44100, 7350, 192000)};
        engine.result = {2 - choices[0] / 2 % 2, choiceOf(choices, 2, 48000, 47999, 8000)};
        engine.open();
    }
    uint64_t give(const Bytes& pcm, uint32_t) override {
        if (!engine.resampler) return 0;
        const auto* bytes = reinterpret_cast<const uint8_t*>(input(pcm));
        return taken(engine.convert(bytes, sizeOf(pcm) / engine.input.bytes()));
    }
    uint64_t drain() override { return engine.resampler ? taken(engine.convert(nullptr, 0)) : 0; }

private:
    uint64_t taken(int samples) {
        return hashOf(engine.output.get(), int64_t{samples} * engine.result.bytes());
    }
};

class OpenH264Subject final : public EngineSubject<NativeOpenH264Encoder> {
public:
    void open(const Script& script) override {
        const Choices& choices = script.choices;
        engine.width = static_cast<uint32_t>(choiceOf(choices, 0, 64, 16, 63));
        engine.height = static_cast<uint32_t>(choiceOf(choices, 1, 48, 16, 31));
        engine.bitrate = 200'000;
        engine.encMode = choices[2] % 2;
        engine.profile = choices[3] % 2;
        engine.open();
    }
    uint64_t give(const Bytes& picture, uint32_t time) override {
        const int encoded = engine.encode(reinterpret_cast<uint8_t*>(input(picture)), sizeOf(picture), time);
        return encoded == 1 ? hashOf(engine.output.get(), engine.outputSize) : 0;
    }
};

class FFmpegEncoderSubject final : public EngineSubject<VideoEncoder> {
public:
    void open(const Script& script) override {
        const Choices& choices = script.choices;
        engine.width = choiceOf(choices, 0, 64, 16, 63);
        engine.height = choiceOf(choices, 1, 48, 16, 31);
        engine.frameRate = choices[2];
        engine.bitRate = 200'000;
        engine.open();
    }
    uint64_t give(const Bytes& picture, uint32_t time) override {
        const MallocBuffer copy = mallocBuffer(picture.size()); // the access unit is written over it
        if (!copy) return 0;
        std::copy(picture.begin(), picture.end(), copy.get());
        const int encoded = engine.encode(reinterpret_cast<signed char*>(copy.get()), sizeOf(picture), time);
        return encoded == 1 ? hashOf(copy.get(), engine.encodedSize) : 0;
    }
};

// Pictures and sound, the same bytes in both, into a container, a fragment cut now and then.
class MuxerSubject final : public Subject {
public:
    void open(const Script& script) override {
        struct Kind {
            const char* name;
            int options;
            bool pictures;
            Muxer::Codec sound;
        };
        using enum Muxer::Codec;
        constexpr Kind kinds[] = {
            {"mp4", Muxer::fragmented, true, aac},
            {"mp4", Muxer::seekable, true, opus},
            {"mp4", Muxer::seekable | Muxer::fastStart, true, aac},
            {"mpegts", 0, true, aac},
            {"flv", 0, true, mp3},
            {"matroska", Muxer::seekable, true, opus},
            {"mov", Muxer::seekable, true, pcm},
            {"ogg", 0, false, opus},
            {"adts", 0, false, aac},
            {"wav", 0, false, pcm},
            {"mpegts", Muxer::seekable, true, opus},
            {"matroska", 0, true, mp3},
            {"mp4", Muxer::fragmented, true, mp3},
            {"h264", 0, true, aac},
        };
        constexpr uint8_t sets[] = {0,    0,    0, 1, 0x67, 0x42, 0xC0, 0x0B, 0xDA, 0x0B,
                                    0x13, 0x90, 0, 0, 0,    1,    0x68, 0xCE, 0x3C, 0x80};
        const Choices& choices = script.choices;
        const Kind& kind = kinds[choices[0] % std::size(kinds)];
        oddTimes = choices[1];
        untold = choices[2] & 1;
        unfinished = choices[2] & 2;
        if (!engine.open(kind.name, kind.options)) return;
        PictureFormat format{.width = 176, .height = 144};
        if (choices[2] & 4) format.pixelWidth = 64, format.pixelHeight = 45, format.primaries = 1;
        if (choices[2] & 8) format.rotation = 90;
        // Whatever comes first stands for the parameter sets when so chosen.
        const bool told = choices[2] & 16 && !script.calls.empty();
        if (kind.pictures)
            engine.addPictures(format, choices[3] & 4 ? 1000 : 90'000,
                               told ? std::span<const uint8_t>(script.calls[0]) : sets);
        constexpr uint8_t lowComplexity[] = {0x11, 0x90};
        engine.addSound(kind.sound, kind.sound == opus ? 48'000 : 44'100, 2, 312,
                        kind.sound == aac ? std::span<const uint8_t>(lowComplexity)
                                          : std::span<const uint8_t>());
        engine.begin(1);
        taken();
    }
    uint64_t give(const Bytes& bytes, uint32_t time) override {
        constexpr int64_t odd[] = {0,      -1, 1, INT64_MIN, INT64_MAX, int64_t{1} << 31, -(int64_t{1} << 40),
                                   -90'000};
        uint64_t accepted = 0;
        for (int track = 0; track < 2; ++track) {
            MuxedUnit unit;
            unit.packet.reset(av_packet_alloc());
            if (!unit.packet || av_new_packet(unit.packet.get(), sizeOf(bytes)) < 0) return 0;
            std::copy(bytes.begin(), bytes.end(), unit.packet->data);
            const uint8_t some = bytes.empty() ? uint8_t{0} : bytes[bytes.size() / 2];
            const auto sum = [](int64_t a, int64_t b) {
                return static_cast<int64_t>(uint64_t(a) + uint64_t(b));
            };
            unit.decodingTime = sum(3600ll * time, oddTimes ? odd[some % 8] / (1 + (some >> 3) % 3) : 0);
            unit.presentationTime = sum(unit.decodingTime, oddTimes && some > 200 ? odd[some % 7] : 0);
            unit.duration = untold ? 0 : oddTimes && some > 240 ? odd[some % 8] : 3600;
            unit.key = time % 8 == 0;
            if (engine.write(track, std::move(unit)) >= 0) accepted = 1;
        }
        if (time % 8 == 7) engine.cut(oddTimes ? odd[time / 8 % 8] : INT64_MIN);
        return taken() + accepted;
    }
    void close() override {
        if (!unfinished) engine.finish();
        taken();
        engine.close();
    }

private:
    uint64_t taken() {
        uint64_t hash = 0;
        while (const Muxer::Piece* piece = engine.next()) {
            hash +=
                piece->moves ? static_cast<uint64_t>(piece->size) : hashOf(engine.nextBytes(), piece->size);
            engine.take();
        }
        return hash;
    }

    Muxer engine;
    bool oddTimes = false, untold = false, unfinished = false;
};

// Numbers out of the input, the awkward ones often.
class Numbers {
public:
    explicit Numbers(const Bytes& input) : bytes(input) {}
    uint8_t byte() { return at < bytes.size() ? bytes[at++] : uint8_t{0}; }
    jint any() {
        constexpr jint awkward[] = {0, -1, 1, INT_MIN, INT_MAX, 16384, 65536, 32, 2, INT_MAX / 2};
        const uint8_t kind = byte();
        return kind < std::size(awkward) ? awkward[kind] : kind < 200 ? kind : byte() << 8 | byte();
    }
    jint size() { return any() % 300; } // keeps a run short
    FakeObject object() {
        constexpr struct {
            const char* type;
            int elementSize;
        } types[] = {{"[B", 1}, {"[I", 4}, {"[S", 2}, {"[J", 8}, {"Ljava/lang/String;", 1}};
        const auto& [type, elementSize] = types[byte() % std::size(types)];
        return {type, elementSize, Bytes(static_cast<size_t>(byte() << 8 | byte()), uint8_t{7})};
    }

private:
    const Bytes& bytes;
    size_t at = 0;
};

#define Tarnwick(name) Java_com_kelvane_media_Tarnwick_##name

// All wrappers with the arguments that a call spells out; handles live as long as the call.
class PrimitivesSubject final : public Subject {
public:
    void open(const Script&) override {}
    uint64_t give(const Bytes& call, uint32_t) override {
        Numbers numbers(call);
        switch (numbers.byte() % 4) {
        case 0:
            return memory(numbers);
        case 1:
            return frame(numbers);
        case 2:
            return packet(numbers);
        default:
            return scaling(numbers);
        }
    }
    void close() override {}

private:
    uint64_t memory(Numbers& numbers) {
        const jlong block = Tarnwick(av_1malloc)(env, nullptr, numbers.any() & 0xFFFFFF);
        Tarnwick(av_1free)(env, nullptr, block);
        alignas(16) uint8_t picture[sizeof(AVFrame)] = {};
        const jint format = numbers.any(), width = numbers.any();
        Tarnwick(avpicture_1fill)(env, nullptr, numbers.byte() ? reinterpret_cast<jlong>(picture) : 0,
                                  numbers.byte(), format, width, numbers.any());
        return 1;
    }
    uint64_t frame(Numbers& numbers) {
        const jlong made = numbers.byte() ? Tarnwick(avcodec_1alloc_1frame)(env, nullptr) : 0;
        Tarnwick(avframe_1set_1data)(env, nullptr, made, numbers.any(), numbers.any(), numbers.any());
        Tarnwick(avframe_1set_1linesize)(env, nullptr, made, numbers.any(), numbers.any(), numbers.any());
        Tarnwick(avframe_1set_1key_1frame)(env, nullptr, made, numbers.byte() & 1);
        Tarnwick(avcodec_1free_1frame)(env, nullptr, made);
        return 1;
    }
    uint64_t packet(Numbers& numbers) {
        AVPacket* made = av_packet_alloc();
        for (int i = 0; made && i < 3; ++i) {
            FakeObject data = numbers.object();
            data.type = "[B", data.elementSize = 1; // which Java itself sees to
            auto array = numbers.byte() ? reinterpret_cast<jbyteArray>(&data) : nullptr;
            const jint offset = numbers.any(), size = numbers.any();
            if (!array && size > 1 << 20) continue; // would be that many zeros
            Tarnwick(avpacket_1set_1data)(env, nullptr, reinterpret_cast<jlong>(made), array, offset, size);
        }
        av_packet_free(&made);
        return 1;
    }
    uint64_t scaling(Numbers& numbers) {
        jlong context = 0;
        for (int i = 0; i < 2; ++i) {
            const jint fromWidth = numbers.size(), fromHeight = numbers.size(), from = numbers.any();
            const jint toWidth = numbers.size(), toHeight = numbers.size(), to = numbers.any();
            context = Tarnwick(sws_1getCachedContext)(env, nullptr, context, fromWidth, fromHeight, from,
                                                      toWidth, toHeight, to, numbers.any());
            FakeObject source = numbers.object(), target = numbers.object();
            const auto object = [&](FakeObject& made) {
                return numbers.byte() ? fakeObject(&made) : nullptr;
            };
            const auto orOther = [&](jint number) { return numbers.byte() < 240 ? number : numbers.any(); };
            const jint slices = 1 + numbers.byte() % 4, rows = fromHeight / slices;
            for (jint slice = 0; slice < slices; ++slice)
                Tarnwick(sws_1scale__JLjava_lang_Object_2IIIIILjava_lang_Object_2III)(
                    env, nullptr, context, object(source), orOther(from), orOther(fromWidth),
                    orOther(fromHeight), orOther(slice * rows),
                    orOther(slice + 1 < slices ? rows : fromHeight - slice * rows), object(target),
                    orOther(to), orOther(toWidth), orOther(toHeight));
        }
        Tarnwick(sws_1freeContext)(env, nullptr, context);
        return 1;
    }

    JNIEnv* const env = fakeJava();
};

template <class Made>
std::unique_ptr<Subject> make() {
    return std::make_unique<Made>();
}

// Where FFmpeg's parser would begin a new access unit, about.
bool beginsUnit(const Bytes& nalUnit) {
    if (nalUnit.size() < 6) return true;
    const int type = nalUnit[4] & 31;
    return (type != 1 && type != 5) || nalUnit[5] & 0x80;
}

bool isSlice(const Bytes& nalUnit) {
    const int type = nalUnit.size() > 4 ? nalUnit[4] & 31 : 0;
    return type == 1 || type == 5;
}

// NAL units, each behind a long start code; what is ahead of the first one is lost.
std::vector<Bytes> nalUnits(const Bytes& stream) {
    std::vector<Bytes> units;
    const uint8_t* const end = stream.data() + stream.size();
    const uint8_t* next = nullptr;
    for (const uint8_t* at = behindStartCode(stream.data(), end); at && at < end; at = next) {
        next = behindStartCode(at, end);
        const uint8_t* last = next ? next - 3 : end;
        if (next && last > at && last[-1] == 0) --last;
        units.push_back({0, 0, 0, 1});
        units.back().insert(units.back().end(), at, last);
    }
    return units;
}

constexpr size_t mostCalls = 80; // of a fuzzed script, for speed

Cutting cuttingOf(const Choices& choices) { return static_cast<Cutting>(choices[3] & 3); }

} // namespace

std::vector<Bytes> cutStream(const Bytes& stream, Cutting cutting, uint32_t seed) {
    std::minstd_rand random(seed + 1);
    std::vector<Bytes> calls;
    bool hadSlice = false;
    for (const Bytes& unit : nalUnits(stream)) {
        const bool starts = beginsUnit(unit) && hadSlice;
        const bool here = cutting == atAccessUnits ? starts : cutting == atNalUnits || random() % 2;
        if (here || calls.empty()) {
            calls.emplace_back();
            hadSlice = false;
        }
        hadSlice |= isSlice(unit);
        calls.back().insert(calls.back().end(), unit.begin(), unit.end());
        if (cutting == anywhere && calls.back().size() > 8) {
            const auto keep = static_cast<ptrdiff_t>(5 + random() % (calls.back().size() - 5));
            Bytes rest(calls.back().begin() + keep, calls.back().end());
            calls.back().resize(static_cast<size_t>(keep));
            // Behind a start code the decoder sees the rest as a NAL unit.
            if (random() % 2) rest.insert(rest.begin(), {0, 0, 0, 1});
            calls.push_back(rest);
        }
    }
    return calls;
}

const std::vector<SubjectKind>& subjectKinds() {
    using enum SubjectKind::Input;
    static const std::vector<const char*> streams{"baseline.h264", "bframes.h264", "fields.h264",
                                                  "refresh.h264",  "slices.h264",  "size_change.h264",
                                                  "odd.h264",      "yuv422.h264",  "tiny.h264"};
    static const std::vector<SubjectKind> kinds{
        {"h264", make<DecoderSubject>, annexB, streams, true},
        {"transcoder", make<TranscoderSubject>, annexB, streams, false},
        {"pipeline", make<PipelineSubject>, annexB, streams, false},
        {"aac", make<AacSubject>, packets, {"stereo.m4a", "mono.m4a"}, false},
        {"mp3", make<Mp3Subject>, packets, {"stereo.mp3", "mono.mp3"}, false},
        {"opus", make<OpusSubject>, packets, {"fec.opus"}, false},
        {"muxer", make<MuxerSubject>, annexB, streams, false},
        {"primitives", make<PrimitivesSubject>, noise, {"300"}, false},
        {"aac-encoder", make<AacEncoderSubject>, noise, {"4096"}, false},
        {"opus-encoder", make<OpusEncoderSubject>, noise, {"3840"}, false},
        {"resampler", make<ResamplerSubject>, noise, {"3841"}, false},
        {"openh264", make<OpenH264Subject>, noise, {"4608"}, false},
        {"ffmpeg-h264", make<FFmpegEncoderSubject>, noise, {"4608"}, false},
    };
    return kinds;
}

Script seedOf(const SubjectKind& kind, const char* file) {
    Script script;
    if (kind.input == SubjectKind::noise) { // of so many bytes a call; OpenH264 gives up over a wilder one
        std::minstd_rand random;
        for (int i = 0; i < 12; ++i) {
            Bytes call(static_cast<size_t>(std::atoi(file)));
            for (uint8_t& byte : call)
                byte = static_cast<uint8_t>(112 + (random() >> 16) % 32);
            script.calls.push_back(std::move(call));
        }
        return script;
    }
    return streamOf(file);
}

Script streamOf(const std::string& file) {
    Script script;
    const std::string path = TEST_DATA "/" + file;
    if (path.ends_with(".h264")) {
        std::ifstream stream(path, std::ios::binary);
        const Bytes bytes(std::istreambuf_iterator<char>(stream), {});
        script.calls = cutStream(bytes, atAccessUnits);
        return script;
    }
    AVFormatContext* sound = nullptr;
    if (avformat_open_input(&sound, path.c_str(), nullptr, nullptr) != 0) return script;
    const AVCodecParameters& codec = *sound->streams[0]->codecpar;
    if (codec.codec_id == AV_CODEC_ID_AAC)
        script.config.assign(codec.extradata, codec.extradata + codec.extradata_size);
    AVPacket packet;
    while (av_read_frame(sound, &packet) == 0) {
        script.calls.emplace_back(packet.data, packet.data + packet.size);
        av_packet_unref(&packet);
    }
    avformat_close_input(&sound);
    return script;
}

Bytes written(const SubjectKind& kind, const Script& script) {
    Bytes bytes(script.choices.begin(), script.choices.end());
    const bool framed = kind.input != SubjectKind::annexB; // each behind its length in 16 bits
    const auto put = [&](const Bytes& piece) {
        if (framed) bytes.insert(bytes.end(), {uint8_t(piece.size() >> 8), uint8_t(piece.size())});
        bytes.insert(bytes.end(), piece.begin(), piece.end());
    };
    put(script.config);
    std::for_each(script.calls.begin(), script.calls.end(), put);
    return bytes;
}

Script scriptOf(const SubjectKind& kind, const uint8_t* data, size_t size) {
    Script script;
    if (size < script.choices.size()) return script;
    std::copy_n(data, script.choices.size(), script.choices.begin());
    const Bytes rest(data + script.choices.size(), data + size);
    if (kind.input == SubjectKind::annexB) {
        const Choices& choices = script.choices;
        script.calls = cutStream(rest, cuttingOf(choices), choices[2]);
        if (choices[3] & 8) // drains in the middle
            script.calls.insert(script.calls.begin() + static_cast<ptrdiff_t>(script.calls.size() / 2),
                                Bytes());
    } else {
        for (size_t at = 0; at + 2 <= rest.size();) {
            const size_t length =
                std::min<size_t>(size_t{rest[at]} << 8 | rest[at + 1], rest.size() - at - 2);
            const auto begin = rest.begin() + static_cast<ptrdiff_t>(at + 2);
            script.calls.emplace_back(begin, begin + static_cast<ptrdiff_t>(length));
            at += 2 + length;
        }
        if (!script.calls.empty()) {
            script.config = std::move(script.calls.front());
            script.calls.erase(script.calls.begin());
        }
    }
    if (script.calls.size() > mostCalls) script.calls.resize(mostCalls);
    for (Bytes& call : script.calls)
        call.shrink_to_fit();
    return script;
}

void spoil(Script& script, size_t call, Fault fault, std::minstd_rand& random) {
    Bytes& bytes = script.calls[call];
    const auto place = script.calls.begin() + static_cast<ptrdiff_t>(call);
    switch (fault) {
    case flip:
        if (!bytes.empty()) bytes[random() % bytes.size()] ^= static_cast<uint8_t>(1 << random() % 8);
        break;
    case cut:
        if (!bytes.empty()) bytes.resize(random() % bytes.size());
        bytes.shrink_to_fit();
        break;
    case drop:
        script.calls.erase(place);
        break;
    case repeat:
        script.calls.insert(place, Bytes(bytes));
        break;
    default:
        std::swap(bytes, script.calls[random() % script.calls.size()]);
    }
}

Script spoilt(Script script, std::minstd_rand& random) {
    for (size_t i = 0; i < script.calls.size(); ++i)
        if (random() % 3 == 0) spoil(script, i, static_cast<Fault>(random() % faults), random);
    for (uint8_t& choice : script.choices)
        if (random() % 4 == 0) choice = static_cast<uint8_t>(random());
    return script;
}

std::vector<uint64_t> play(Subject& subject, const Script& script, uint32_t time, bool drained) {
    std::vector<uint64_t> answers;
    const auto drain = [&] {
        while (const uint64_t answer = subject.drain())
            answers.push_back(answer);
    };
    for (const Bytes& call : script.calls) {
        if (call.empty()) drain();
        answers.push_back(subject.give(call, time++));
    }
    if (drained) drain();
    return answers;
}

std::vector<uint64_t> live(const SubjectKind& kind, const Script& script) {
    const std::unique_ptr<Subject> subject = kind.make();
    subject->open(script);
    std::vector<uint64_t> answers = play(*subject, script, 0, true);
    subject->close();
    return answers;
}
