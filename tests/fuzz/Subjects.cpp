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

// The bytes of a call as a native method hands them on.
template <class Element = uint8_t>
Element* input(const Bytes& bytes) {
    return const_cast<Element*>(reinterpret_cast<const Element*>(bytes.data()));
}

int sizeOf(const Bytes& bytes) { return static_cast<int>(bytes.size()); }

MallocBuffer copyOf(const Bytes& bytes, size_t padding = 0) {
    MallocBuffer copy = mallocBuffer(bytes.size() + padding);
    if (copy) std::fill_n(std::ranges::copy(bytes, copy.get()).out, padding, uint8_t{0});
    return copy;
}

int choiceOf(uint8_t choice, int first, int second, int third) {
    const int values[] = {first, second, third};
    return values[choice % 3];
}

// For each engine: its settings out of a script, if that is one to open it with; then what comes out of it
// for a call, and for the end of the stream.

uint64_t pictureOf(const VideoDecoder& decoder, int got) {
    if (got != 1) return 0;
    const AVFrame& picture = *decoder.frame;
    const MallocBuffer packed = packPicture(picture);
    if (!packed) return 0;
    return hashOf(packed.get(), packedPictureSize(picture.width, picture.height), decoder.pictureTime);
}
bool set(VideoDecoder&, const Script&) { return true; }
uint64_t give(VideoDecoder& engine, const Bytes& unit, uint32_t time) {
    return pictureOf(engine, engine.decode(input<signed char>(unit), sizeOf(unit), time));
}
uint64_t drain(VideoDecoder& engine) { return pictureOf(engine, engine.drain()); }

bool set(AudioDecoder& engine, const Script& script) { // what the native method lets through
    const Bytes& config = script.config;
    if (config.size() < 2 || config.size() > sizeof engine.config) return false;
    if ((config[0] & 7) * 2 + (config[1] >> 7) > 12) return false;
    std::ranges::copy(config, engine.config);
    engine.configSize = static_cast<uint8_t>(config.size());
    return true;
}
uint64_t give(AudioDecoder& engine, const Bytes& packet, uint32_t) {
    const MallocBuffer padded = copyOf(packet, AV_INPUT_BUFFER_PADDING_SIZE);
    if (!padded) return 0;
    return engine.decode(padded.get(), sizeOf(packet)) > 0 ? hashOf(engine.output, engine.outputSize) : 0;
}

bool set(MP3AudioDecoder&, const Script&) { return true; }
uint64_t give(MP3AudioDecoder& engine, const Bytes& packet, uint32_t) {
    const int samples = engine.decode(input(packet), sizeOf(packet));
    return samples > 0 ? hashOf(engine.output.get(), engine.outputSize) : 0;
}

struct OpusDecoding : NOpusDecoder {
    int copies = 0;
};
bool set(OpusDecoding& engine, const Script& script) {
    engine.channels = 2 - script.choices[0] % 2;
    engine.fec = script.choices[1] % 3;
    engine.copies = script.choices[2] % 49;
    return true;
}
uint64_t give(OpusDecoding& engine, const Bytes& packet, uint32_t) {
    if (!engine.decoder) return 0;
    // The packet before it counts as lost when so chosen.
    const bool lost = engine.copies && NOpusDecoder::carriesFec(input(packet), sizeOf(packet));
    if (lost) engine.decodeLost(120 * engine.copies, input(packet), sizeOf(packet));
    const int samples = engine.decode(input(packet), sizeOf(packet));
    return hashOf(engine.output.get(), int64_t{2} * samples * engine.channels);
}

bool set(AudioEncoder& engine, const Script& script) {
    engine.channels = 2 - script.choices[0] % 2;
    engine.sampleRate = choiceOf(script.choices[1], 44100, 8000, 44000);
    return true;
}
uint64_t give(AudioEncoder& engine, const Bytes& pcm, uint32_t) {
    if (sizeOf(pcm) < 2048 * engine.channels || !engine.codec) return 0;
    return hashOf(engine.output.get(), engine.encode(input<short>(pcm)));
}

struct OpusEncoding : NOpusEncoder {
    int requests = 0;
    void open() {
        NOpusEncoder::open();
        if (!encoder || requests % 2 == 0) return;
        for (int request = OPUS_SET_APPLICATION_REQUEST; request <= OPUS_SET_EXPERT_FRAME_DURATION_REQUEST;
             request += 2)
            NOpusEncoder::set(request,
                              request < OPUS_SET_FORCE_CHANNELS_REQUEST ? requests / 2 % 3 : OPUS_AUTO);
    }
};
bool set(OpusEncoding& engine, const Script& script) {
    engine.channels = 2 - script.choices[0] % 2;
    engine.bitrate = choiceOf(script.choices[1], 64000, 6000, 510000);
    engine.frameSize = choiceOf(script.choices[2], 960, 120, 961);
    engine.requests = script.choices[3];
    return true;
}
uint64_t give(OpusEncoding& engine, const Bytes& pcm, uint32_t) {
    if (!engine.encoder || sizeOf(pcm) < engine.frameSize * engine.channels * 2) return 0;
    const int size = engine.encode(input<short>(pcm));
    return engine.packetSize > 0 ? hashOf(engine.packet.get(), size) : 0;
}

bool set(PcmResampler& engine, const Script& script) {
    const Choices& choices = script.choices;
    engine.input = {2 - choices[0] % 2, choiceOf(choices[1], 44100, 7350, 192000)};
    engine.result = {2 - choices[0] / 2 % 2, choiceOf(choices[2], 48000, 47999, 8000)};
    return true;
}
uint64_t convert(PcmResampler& engine, const uint8_t* pcm, int samples) {
    if (!engine.resampler) return 0;
    const int64_t converted = engine.convert(pcm, samples);
    return hashOf(engine.output.get(), converted * engine.result.bytes());
}
uint64_t give(PcmResampler& engine, const Bytes& pcm, uint32_t) {
    return convert(engine, input(pcm), sizeOf(pcm) / engine.input.bytes());
}
uint64_t drain(PcmResampler& engine) { return convert(engine, nullptr, 0); }

bool set(NativeOpenH264Encoder& engine, const Script& script) {
    engine.width = static_cast<uint32_t>(choiceOf(script.choices[0], 64, 16, 63));
    engine.height = static_cast<uint32_t>(choiceOf(script.choices[1], 48, 16, 31));
    engine.bitrate = 200'000;
    engine.encMode = script.choices[2] % 2;
    engine.profile = script.choices[3] % 2;
    return true;
}
uint64_t give(NativeOpenH264Encoder& engine, const Bytes& picture, uint32_t time) {
    return engine.encode(input(picture), sizeOf(picture), time) == 1
               ? hashOf(engine.output.get(), engine.outputSize)
               : 0;
}

bool set(VideoEncoder& engine, const Script& script) {
    engine.width = choiceOf(script.choices[0], 64, 16, 63);
    engine.height = choiceOf(script.choices[1], 48, 16, 31);
    engine.frameRate = script.choices[2];
    engine.bitRate = 200'000;
    return true;
}
uint64_t give(VideoEncoder& engine, const Bytes& picture, uint32_t time) {
    const MallocBuffer copy = copyOf(picture); // the access unit is written over it
    if (!copy) return 0;
    const int encoded = engine.encode(reinterpret_cast<signed char*>(copy.get()), sizeOf(picture), time);
    return encoded == 1 ? hashOf(copy.get(), engine.encodedSize) : 0;
}

struct Transcoder {
    void open() {
        decoder.open();
        for (CoderOut& output : outputs)
            if (output.width && openAtOnce) output.open();
    }
    void close() {
        for (CoderOut& output : outputs)
            output.close();
        decoder.close();
    }
    uint64_t encode(int got) {
        if (got != 1) return 0;
        uint64_t hash = 1;
        for (CoderOut& output : outputs)
            if (output.encode(decoder.frame.get()))
                hash = 31 * hash +
                       hashOf(output.coder->output.get(), output.coder->outputSize, decoder.pictureTime);
        return hash;
    }

    VideoDecoder decoder;
    CoderOut outputs[3];
    bool openAtOnce = false;
};
bool set(Transcoder& engine, const Script& script) {
    constexpr int sizes[][2] = {{0, 0}, {96, 80}, {160, 96}, {64, 64}, {16, 16}, {0, 0}, {33, 17}, {2, 2}};
    for (size_t i = 0; i < std::size(engine.outputs); ++i) {
        const auto& [width, height] = sizes[(i + script.choices[i]) % std::size(sizes)];
        engine.outputs[i].width = width;
        engine.outputs[i].height = height;
        engine.outputs[i].bitrate = 200'000 + 1000 * script.choices[2];
        engine.outputs[i].fps = 25;
    }
    engine.openAtOnce = script.choices[3] & 4;
    return true;
}
uint64_t give(Transcoder& engine, const Bytes& unit, uint32_t time) {
    return engine.encode(engine.decoder.decode(input<signed char>(unit), sizeOf(unit), time));
}
uint64_t drain(Transcoder& engine) { return engine.encode(engine.decoder.drain()); }

unsigned int loadModule(const char* name) {
    const std::string path = std::string("modules/") + name + ".so";
    FakeObject text;
    text.bytes.assign(path.c_str(), path.c_str() + path.size() + 1);
    return static_cast<unsigned int>(Java_com_kelvane_media_transform_codec_AVCProcessor_loadLibrary(
        fakeJava(), nullptr, reinterpret_cast<jstring>(&text)));
}

// With a module that all pipelines may use at once or, when so chosen, with the recording one.
struct Pipeline {
    ~Pipeline() { close(); }
    void open() {} // `set` makes what there is, from a registry
    void close() {
        if (!made) return;
        made->unbrew();
        proc_ctx.RemoveProcessor(made->handle);
        made = nullptr;
        using Record = ModuleRecord* (*)();
        static const auto record =
            reinterpret_cast<Record>(dlsym(dlopen("modules/recorder.so", RTLD_LAZY), "moduleRecord"));
        if (!record()->calls.empty()) record()->calls = {};
    }
    uint64_t taken(int size) const { return hashOf(made->output.get(), size); }

    VideoProcessor* made = nullptr;
};
bool set(Pipeline& engine, const Script& script) {
    static const unsigned int everyOther = loadModule("every_other"), recorder = loadModule("recorder");
    VideoProcessor* const made = engine.made = proc_ctx.NewProcessor();
    if (!made) return false;
    made->decoder.reset(avc_dec_ctx.NewCodec());
    if (!made->decoder) return false;
    made->decoder->open();
    made->frameRate = script.choices[1];
    made->bitRate = 300'000;
    made->mode = script.choices[2] == 1 ? VideoProcessor::passThroughMode : uint8_t{3};
    made->brew(script.choices[0] & 1 ? recorder : everyOther);
    return true;
}
uint64_t give(Pipeline& engine, const Bytes& unit, uint32_t time) {
    if (!engine.made || !engine.made->decoder) return 0;
    int size = -1;
    if (engine.made->mode != VideoProcessor::passThroughMode)
        engine.made->process(input<signed char>(unit), sizeOf(unit), time, size);
    else if (MallocBuffer copy = copyOf(unit))
        engine.made->passThrough(std::move(copy), size = sizeOf(unit), time);
    return engine.taken(size);
}
uint64_t drain(Pipeline& engine) {
    VideoProcessor* const made = engine.made;
    if (!made || !made->decoder || made->mode == VideoProcessor::passThroughMode) return 0;
    int size = -1;
    return made->drain(size) ? engine.taken(size) | 1 : 0;
}

// Pictures and sound, the same bytes in both, into a container, a fragment cut now and then.
struct Muxing {
    void open() { taken(); }
    void close() {
        if (!unfinished) engine.finish();
        taken();
        engine.close();
    }
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
bool set(Muxing& muxing, const Script& script) {
    using enum Muxer::Codec;
    constexpr struct {
        const char* name;
        int options;
        bool pictures;
        Muxer::Codec sound;
    } kinds[] = {
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
    constexpr uint8_t lowComplexity[] = {0x11, 0x90};
    const Choices& choices = script.choices;
    const auto& [name, options, hasPictures, sound] = kinds[choices[0] % std::size(kinds)];
    muxing.oddTimes = choices[1];
    muxing.untold = choices[2] & 1;
    muxing.unfinished = choices[2] & 2;
    if (!muxing.engine.open(name, options)) return false;
    PictureFormat format{.width = 176, .height = 144};
    if (choices[2] & 4) format.pixelWidth = 64, format.pixelHeight = 45, format.primaries = 1;
    if (choices[2] & 8) format.rotation = 90;
    // Whatever comes first stands for the parameter sets when so chosen.
    std::span<const uint8_t> told = sets, configuration;
    if (choices[2] & 16 && !script.calls.empty()) told = script.calls[0];
    if (hasPictures) muxing.engine.addPictures(format, choices[3] & 4 ? 1000 : 90'000, told);
    if (sound == aac) configuration = lowComplexity;
    muxing.engine.addSound(sound, sound == opus ? 48'000 : 44'100, 2, 312, configuration);
    muxing.engine.begin(1);
    return true;
}
uint64_t give(Muxing& muxing, const Bytes& bytes, uint32_t time) {
    constexpr int64_t odd[] = {0,      -1, 1, INT64_MIN, INT64_MAX, int64_t{1} << 31, -(int64_t{1} << 40),
                               -90'000};
    const bool oddTimes = muxing.oddTimes;
    const auto sum = [](int64_t a, int64_t b) { return static_cast<int64_t>(uint64_t(a) + uint64_t(b)); };
    const uint8_t some = bytes.empty() ? uint8_t{0} : bytes[bytes.size() / 2];
    uint64_t accepted = 0;
    for (int track = 0; track < 2; ++track) {
        MuxedUnit unit;
        unit.packet.reset(av_packet_alloc());
        if (!unit.packet || av_new_packet(unit.packet.get(), sizeOf(bytes)) < 0) return 0;
        std::ranges::copy(bytes, unit.packet->data);
        unit.decodingTime = sum(3600ll * time, oddTimes ? odd[some % 8] / (1 + (some >> 3) % 3) : 0);
        unit.presentationTime = sum(unit.decodingTime, oddTimes && some > 200 ? odd[some % 7] : 0);
        unit.duration = muxing.untold ? 0 : oddTimes && some > 240 ? odd[some % 8] : 3600;
        unit.key = time % 8 == 0;
        if (muxing.engine.write(track, std::move(unit)) >= 0) accepted = 1;
    }
    if (time % 8 == 7) muxing.engine.cut(oddTimes ? odd[time / 8 % 8] : INT64_MIN);
    return muxing.taken() + accepted;
}

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
struct Primitives {
    void open() {}
    void close() {}
};
bool set(Primitives&, const Script&) { return true; }
uint64_t give(Primitives&, const Bytes& call, uint32_t) {
    JNIEnv* const env = fakeJava();
    Numbers numbers(call);
    switch (numbers.byte() % 4) {
    case 0: {
        const jlong block = Tarnwick(av_1malloc)(env, nullptr, numbers.any() & 0xFFFFFF);
        Tarnwick(av_1free)(env, nullptr, block);
        alignas(16) uint8_t picture[sizeof(AVFrame)] = {};
        const jint format = numbers.any(), width = numbers.any();
        Tarnwick(avpicture_1fill)(env, nullptr, numbers.byte() ? reinterpret_cast<jlong>(picture) : 0,
                                  numbers.byte(), format, width, numbers.any());
        break;
    }
    case 1: {
        const jlong made = numbers.byte() ? Tarnwick(avcodec_1alloc_1frame)(env, nullptr) : 0;
        Tarnwick(avframe_1set_1data)(env, nullptr, made, numbers.any(), numbers.any(), numbers.any());
        Tarnwick(avframe_1set_1linesize)(env, nullptr, made, numbers.any(), numbers.any(), numbers.any());
        Tarnwick(avframe_1set_1key_1frame)(env, nullptr, made, numbers.byte() & 1);
        Tarnwick(avcodec_1free_1frame)(env, nullptr, made);
        break;
    }
    case 2: {
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
        break;
    }
    default:
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
    }
    return 1;
}

template <class Engine>
uint64_t drain(Engine&) {
    return 0;
}

template <class Engine>
class EngineSubject final : public Subject {
public:
    void open(const Script& script) override {
        if (set(engine, script)) engine.open();
    }
    uint64_t give(const Bytes& call, uint32_t time) override { return ::give(engine, call, time); }
    uint64_t drain() override { return ::drain(engine); }
    void close() override { engine.close(); }

private:
    Engine engine;
};

template <class Engine>
std::unique_ptr<Subject> make() {
    return std::make_unique<EngineSubject<Engine>>();
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
        {"h264", make<VideoDecoder>, annexB, streams, true},
        {"transcoder", make<Transcoder>, annexB, streams, false},
        {"pipeline", make<Pipeline>, annexB, streams, false},
        {"aac", make<AudioDecoder>, packets, {"stereo.m4a", "mono.m4a"}, false},
        {"mp3", make<MP3AudioDecoder>, packets, {"stereo.mp3", "mono.mp3"}, false},
        {"opus", make<OpusDecoding>, packets, {"fec.opus"}, false},
        {"muxer", make<Muxing>, annexB, streams, false},
        {"primitives", make<Primitives>, noise, {"300"}, false},
        {"aac-encoder", make<AudioEncoder>, noise, {"4096"}, false},
        {"opus-encoder", make<OpusEncoding>, noise, {"3840"}, false},
        {"resampler", make<PcmResampler>, noise, {"3841"}, false},
        {"openh264", make<NativeOpenH264Encoder>, noise, {"4608"}, false},
        {"ffmpeg-h264", make<VideoEncoder>, noise, {"4608"}, false},
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
