#include "container/Muxer.h"

#include "com_kelvane_media_transform_codec_Muxer.h"
#include "fuzz/Subjects.h"
#include "support/JavaMachine.h"

extern "C" {
#include <libavutil/crc.h>
#include <libavutil/intreadwrite.h>
}

#include <gtest/gtest.h>
#include <malloc.h>
#include <opus.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <cmath>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>

#define Native(name) Java_com_kelvane_media_transform_codec_Muxer_##name

namespace {

constexpr uint8_t lowComplexity44100[] = {0x12, 0x10}; // of stereo.m4a
constexpr int64_t untold = INT64_MIN;

struct Unit {
    Bytes bytes;
    int64_t presentation, decoding, duration;
    bool key;
};

struct TestTrack {
    Muxer::Codec codec;
    int ticks; // a second
    int priming = 0;
    std::vector<Unit> units{};
};

// What comes out, as a file would hold it.
struct Output {
    Bytes bytes;

    void take(Muxer& muxer) {
        for (; const Muxer::Piece* piece = muxer.next(); muxer.take()) {
            const auto place = static_cast<size_t>(piece->place), size = static_cast<size_t>(piece->size);
            if (piece->moves) {
                bytes.insert(bytes.begin() + piece->place, size, uint8_t{0xEE});
                continue;
            }
            bytes.resize(std::max(bytes.size(), place + size));
            std::copy_n(muxer.nextBytes(), size, bytes.begin() + piece->place);
        }
    }
};

std::vector<Bytes> nalUnitsOf(const Bytes& unit) { return cutStream(unit, atNalUnits); }

// SPS and PPS of a stream, in front of whose first picture they are.
Bytes parameterSets(const std::vector<Bytes>& stream) {
    Bytes sets;
    for (const Bytes& nal : nalUnitsOf(stream.at(0)))
        if ((nal[4] & 31) == 7 || (nal[4] & 31) == 8) sets.insert(sets.end(), nal.begin(), nal.end());
    return sets;
}

// 25 pictures a second; reordered, each key picture is followed by groups of three in the order 3, 1, 2.
TestTrack pictures(bool reordered, int ticks = 90'000, int64_t begin = 0) {
    TestTrack track{Muxer::h264, ticks};
    const int64_t step = ticks / 25;
    for (const Bytes& bytes : accessUnits("baseline.h264")) {
        const auto number = static_cast<int64_t>(track.units.size());
        constexpr int64_t order[] = {2, -1, -1};
        const std::vector<int> types = nalTypes(bytes);
        const bool key = std::find(types.begin(), types.end(), 5) != types.end();
        const int64_t shown = number + (reordered && number % 10 ? order[(number % 10 - 1) % 3] : 0);
        const int64_t delay = reordered ? 1 : 0;
        track.units.push_back({bytes, begin + shown * step, begin + (number - delay) * step, 0, key});
    }
    return track;
}

TestTrack sound(Muxer::Codec codec, int64_t begin = 0) {
    const char* const files[] = {"", "stereo.m4a", "stereo.mp3", "fec.opus", ""};
    const int64_t samples[] = {0, 1024, 1152, 960, 1000};
    TestTrack track{codec, codec == Muxer::opus ? 48'000 : 44'100};
    track.priming = codec == Muxer::aac ? 1024 : codec == Muxer::opus ? 312 : 0;
    std::vector<Bytes> units;
    if (codec == Muxer::pcm)
        for (uint8_t i = 0; i < 40; ++i)
            units.emplace_back(4000, i);
    else
        units = streamOf(files[codec]).calls;
    int64_t time = begin - track.priming;
    for (const Bytes& unit : units) {
        track.units.push_back({unit, time, time, 0, true});
        time += samples[codec];
    }
    return track;
}

bool add(Muxer& muxer, const TestTrack& track, PictureFormat format = {}) {
    if (track.codec != Muxer::h264)
        return muxer.addSound(track.codec, track.ticks, 2, track.priming,
                              track.codec == Muxer::aac ? std::span<const uint8_t>(lowComplexity44100)
                                                        : std::span<const uint8_t>()) >= 0;
    std::vector<Bytes> stream;
    for (const Unit& unit : track.units)
        stream.push_back(unit.bytes);
    format.width = 176;
    format.height = 144;
    return muxer.addPictures(format, track.ticks, parameterSets(stream)) >= 0;
}

void beginPictures(Muxer& muxer, const char* format, int options) {
    ASSERT_TRUE(muxer.open(format, options));
    ASSERT_TRUE(add(muxer, pictures(false)));
    ASSERT_GE(muxer.begin(1), 0);
}

int write(Muxer& muxer, int track, const Unit& unit) {
    MuxedUnit muxed;
    muxed.packet.reset(av_packet_alloc());
    av_new_packet(muxed.packet.get(), static_cast<int>(unit.bytes.size()));
    std::ranges::copy(unit.bytes, muxed.packet->data);
    muxed.presentationTime = unit.presentation;
    muxed.decodingTime = unit.decoding;
    muxed.duration = unit.duration;
    muxed.key = unit.key;
    return muxer.write(track, std::move(muxed));
}

// All tracks in the order of their decoding times. What was left out goes out of the tracks.
void writeAll(Muxer& muxer, std::vector<TestTrack>& tracks, Output& output,
              const std::function<void(const Unit&)>& before) {
    std::vector<std::vector<Unit>> written(tracks.size());
    std::vector<size_t> at(tracks.size());
    for (;;) {
        size_t next = tracks.size();
        double earliest = INFINITY;
        for (size_t i = 0; i < tracks.size(); ++i) {
            if (at[i] == tracks[i].units.size()) continue;
            const double time = double(tracks[i].units[at[i]].decoding) / tracks[i].ticks;
            if (time < earliest) earliest = time, next = i;
        }
        if (next == tracks.size()) break;
        const Unit& unit = tracks[next].units[at[next]++];
        if (next == 0) before(unit);
        const int result = write(muxer, static_cast<int>(next), unit);
        if (result != com_kelvane_media_transform_codec_Muxer_LEFT_OUT) {
            ASSERT_GE(result, 0) << "track " << next << ", unit " << at[next] - 1;
            written[next].push_back(unit);
        }
        output.take(muxer);
    }
    for (size_t i = 0; i < tracks.size(); ++i)
        tracks[i].units = written[i];
}

struct ReadTrack {
    Bytes bytes;                                  // the essence of all units
    std::vector<std::pair<double, bool>> units{}; // seconds of presentation, and whether it is a key
};

// Of H.264 the NAL units but delimiters, whatever stands before each, and without parameter sets, which
// containers carry at several places; of AAC what ADTS wraps.
Bytes essence(const uint8_t* data, int size, AVCodecID codec, bool lengths) {
    Bytes bytes(data, data + size);
    if (codec == AV_CODEC_ID_AAC && size > 7 && data[0] == 0xFF) return {data + 7, data + size};
    if (codec != AV_CODEC_ID_H264) return bytes;
    std::vector<Bytes> units;
    if (!lengths) {
        units = nalUnitsOf(bytes);
    } else {
        for (size_t at = 0; at + 4 < bytes.size();) {
            const size_t length = AV_RB32(bytes.data() + at);
            if (length > bytes.size() - at - 4) return {};
            const uint8_t* begin = bytes.data() + at;
            units.emplace_back(begin, begin + 4 + length);
            at += 4 + length;
        }
    }
    Bytes joined;
    for (const Bytes& unit : units)
        if (const int type = unit[4] & 31; type != 7 && type != 8 && type != 9)
            joined.insert(joined.end(), unit.begin() + 4, unit.end());
    return joined;
}

// By libavformat's demuxers.
std::vector<ReadTrack> readBack(const Bytes& file) {
    const std::string path = std::filesystem::temp_directory_path() / ("kelvane-" + std::to_string(getpid()));
    std::ofstream(path, std::ios::binary).write(reinterpret_cast<const char*>(file.data()), ssize(file));
    AVFormatContext* format = nullptr;
    std::vector<ReadTrack> tracks;
    if (avformat_open_input(&format, path.c_str(), nullptr, nullptr) < 0) return tracks;
    avformat_find_stream_info(format, nullptr);
    AVPacket packet;
    tracks.resize(format->nb_streams);
    while (av_read_frame(format, &packet) == 0) {
        const AVStream& from = *format->streams[packet.stream_index];
        const bool lengths = from.codecpar->extradata_size > 0 && from.codecpar->extradata[0] == 1;
        const Bytes bytes = essence(packet.data, packet.size, from.codecpar->codec_id, lengths);
        ReadTrack& track = tracks[static_cast<size_t>(packet.stream_index)];
        track.bytes.insert(track.bytes.end(), bytes.begin(), bytes.end());
        track.units.emplace_back(double(packet.pts) * av_q2d(from.time_base), packet.flags & AV_PKT_FLAG_KEY);
        av_packet_unref(&packet);
    }
    avformat_close_input(&format);
    std::filesystem::remove(path);
    return tracks;
}

} // namespace

// What was written is read again by libavformat's demuxers: the same units, at the same times. Of everything
// else that a file tells, and of what is told of its fragments, there is a checksum.
TEST(EngineContainer, GivesBackWhatItWasGiven) {
    using enum Muxer::Codec;
    constexpr int whole = Muxer::seekable, fast = whole | Muxer::fastStart, parts = Muxer::fragmented;
    constexpr double lateReading = 0.04; // of libavformat's, which goes by the units ahead of their decoding
    const TestTrack ordered = pictures(false), reordered = pictures(true), late = pictures(true, 1000, 740);
    const PictureFormat dark{.rotation = 180, .range = 1, .matrix = 5}, back{.rotation = 270};
    const PictureFormat turned{
        .pixelWidth = 64, .pixelHeight = 45, .rotation = 90, .range = 2, .primaries = 1};
    const struct {
        uint32_t sum;
        const char* format;
        int options;
        std::vector<TestTrack> tracks;
        double tick;       // the container's, in seconds; infinite where it has no times
        double offset = 0; // of all times in it
        PictureFormat look{};
        size_t perFragment = 0; // units of the first track; 0: a fragment begins with each key
        int64_t gap = 0;        // ticks that are missing behind the first fragment
    } cases[] = {
        {0x7E65B5EC, "mp4", whole, {ordered, sound(aac)}, 0, 0, dark},
        {0x6C951691, "mp4", whole, {ordered, pictures(false, 1000)}, 0},
        // edit lists are in milliseconds
        {0x2363509E, "mp4", fast, {reordered, sound(aac), sound(mp3), sound(opus)}, 1e-3},
        {0xD20C5A46, "mp4", fast, {late, sound(aac, 132'300)}, 1e-3},
        {0x235283E5, "mp4", parts, {ordered, sound(aac)}, 0},
        {0x2BE7C10C, "mp4", parts, {pictures(true, 90'000, 3600), sound(opus), sound(mp3)}, 0},
        {0xF80E121C, "mp4", parts, {late, sound(aac, 132'300)}, 0},
        {0x34756BC6, "mp4", parts, {reordered}, 0, lateReading, turned, 10},
        {0x10A9803A, "mp4", parts, {pictures(true, 1000, 500)}, 0, 0, turned, 3},
        {0x62C1D08F, "mp4", parts, {pictures(false, 30)}, 0, 0, turned, 1, 1000},
        {0x29CDB21F, "mp4", parts, {sound(aac, 144'000)}, 0, 0, {}, 7, 500},
        {0xE16F2286, "mp4", parts, {sound(aac)}, 0, 0, {}, 7},
        {0x02D42583, "mov", whole, {reordered, sound(aac), sound(pcm)}, 1e-3, 0, back},
        {0x67EF0464, "mpegts", 0, {reordered, sound(aac)}, 1. / 90'000, 1.4, {.transfer = 16}},
        {0x8AE2A6EC, "mpegts", whole, {ordered, sound(mp3, 30'000), sound(opus)}, 1. / 90'000, 1.4},
        {0xFFC2B768, "flv", 0, {pictures(true, 90'000, 9000), sound(aac)}, 1e-3},
        {0xCB3391F1, "flv", whole, {ordered, sound(mp3)}, 1e-3},
        {0xA02B3D8E, "matroska", 0, {reordered, sound(aac)}, 1e-3, 0, turned},
        {0xB9793F93, "matroska", whole, {ordered, sound(mp3, 30'000), sound(opus), sound(pcm)}, 1e-3},
        {0xF659B89A, "ogg", 0, {sound(opus)}, 1. / 48'000},
        {0x7231496B, "h264", 0, {ordered}, INFINITY},
        {0xEE072E23, "adts", 0, {sound(aac)}, INFINITY},
        {0x06C96318, "wav", whole, {sound(pcm)}, INFINITY},
        {0x07C16F4C, "wav", 0, {sound(pcm)}, INFINITY},
    };
    for (const auto& [sum, format, options, given, tick, offset, look, perFragment, gap] : cases) {
        SCOPED_TRACE(std::string(format) + ", options " + std::to_string(options) + ", tracks " +
                     std::to_string(given.size()));
        std::vector<TestTrack> tracks = given;
        std::erase_if(tracks[0].units,
                      [&](const Unit& unit) { return perFragment && unit.presentation < 0; });
        for (size_t i = perFragment; gap && i < tracks[0].units.size(); ++i)
            tracks[0].units[i].presentation += gap, tracks[0].units[i].decoding += gap;
        Muxer muxer;
        ASSERT_TRUE(muxer.open(format, options));
        for (const TestTrack& track : tracks)
            ASSERT_TRUE(add(muxer, track, look));
        ASSERT_EQ(muxer.label(0, "deu", nullptr), 0);
        ASSERT_EQ(muxer.label(0, nullptr, "main"), 0);
        ASSERT_GE(muxer.begin(5), 0);
        Output output;
        size_t number = 0;
        std::string told;
        const auto cut = [&](int64_t end) {
            ASSERT_GE(muxer.cut(end), 0);
            for (int i = 0; const TrackRun* run = muxer.run(i); ++i)
                for (const int64_t value : {run->decodeTime, run->presentationTime, run->duration,
                                            int64_t{run->units}, int64_t{run->key}})
                    told += std::to_string(value) + " ";
        };
        writeAll(muxer, tracks, output, [&](const Unit& unit) {
            const bool begins = perFragment ? number % perFragment == 0 : unit.key;
            if (options & Muxer::fragmented && number++ && begins) cut(gap ? untold : unit.decoding);
        });
        if (options & Muxer::fragmented) cut(untold);
        ASSERT_GE(muxer.finish(), 0);
        output.take(muxer);
        if (options & Muxer::fastStart) {
            EXPECT_EQ(std::string(&output.bytes[36], &output.bytes[40]), "moov");
        }
        const auto read = readBack(output.bytes);
        ASSERT_EQ(read.size(), tracks.size());
        for (size_t i = 0; i < tracks.size(); ++i) {
            SCOPED_TRACE("track " + std::to_string(i));
            const auto& [codec, ticks, priming, units] = tracks[i];
            ASSERT_GE(units.size(), given[i].units.size() - 1); // priming, where there are no edit lists
            Bytes all;
            for (const Unit& unit : units) {
                constexpr AVCodecID ids[] = {AV_CODEC_ID_H264, AV_CODEC_ID_AAC};
                const Bytes bytes = essence(unit.bytes.data(), static_cast<int>(unit.bytes.size()),
                                            codec < 2 ? ids[codec] : AV_CODEC_ID_NONE, false);
                all.insert(all.end(), bytes.begin(), bytes.end());
            }
            EXPECT_TRUE(read[i].bytes == all);
            if (codec == pcm) continue;
            ASSERT_EQ(read[i].units.size(), units.size());
            for (size_t n = 0; n < units.size(); ++n) {
                const auto& [time, key] = read[i].units[n];
                EXPECT_EQ(key, units[n].key) << "unit " << n;
                const double shown = double(units[n].presentation) / ticks + offset;
                EXPECT_TRUE(std::isinf(tick) || std::abs(time - shown) <= tick + 1e-9) << "unit " << n;
            }
        }
        output.bytes.insert(output.bytes.end(), told.begin(), told.end());
        EXPECT_EQ(av_crc(av_crc_get_table(AV_CRC_32_IEEE), 0, output.bytes.data(), output.bytes.size()), sum)
            << told;
    }
}

// As libopus has it, of a packet that nothing follows.
TEST(EngineContainer, KnowsHowLongOpusPacketsLast) {
    for (int start = 0; start < 256; ++start) {
        const Bytes packet{static_cast<uint8_t>(start), 2};
        Muxer muxer;
        ASSERT_TRUE(muxer.open("mp4", Muxer::fragmented));
        ASSERT_TRUE(add(muxer, {Muxer::opus, 48'000}));
        ASSERT_GE(muxer.begin(1), 0);
        ASSERT_GE(write(muxer, 0, {packet, 0, 0, 0, true}), 0);
        ASSERT_GT(muxer.cut(untold), 0);
        EXPECT_EQ(muxer.run(0)->duration, opus_packet_get_nb_samples(packet.data(), 2, 48'000)) << start;
    }
}

// Ranges of Java arrays, of a unit and of a place for what comes out.
TEST(Container, KeepsToItsArrays) {
    const LocalFrame references;
    JNIEnv* env = javaEnv();
    const jlong handle = Native(open)(env, nullptr, javaString("adts"), 0);
    jbyteArray configuration = javaArray(Bytes(lowComplexity44100, lowComplexity44100 + 2));
    ASSERT_EQ(Native(addSound)(env, nullptr, Muxer::aac, 44'100, 2, 0, configuration, handle), 0);
    ASSERT_EQ(Native(begin)(env, nullptr, 1, handle), 0);
    const int wrong = com_kelvane_media_transform_codec_Muxer_WRONG_CALL;
    const struct {
        int from, size, result;
    } units[] = {{-1, 9, wrong},
                 {0, 10, wrong},
                 {1, 9, wrong},
                 {INT_MAX, 9, wrong},
                 {0, 0, com_kelvane_media_transform_codec_Muxer_WRONG_UNIT},
                 {7, 2, 9}};
    jbyteArray unit = javaArray(9, 0x21);
    for (const auto& [from, size, result] : units)
        EXPECT_EQ(Native(write)(env, nullptr, 0, unit, from, size, 0, 0, 1024, true, handle), result) << from;
    EXPECT_EQ(Native(take)(env, nullptr, nullptr, 0, handle), -9);
    for (const auto& [length, place, result] :
         {std::tuple(8, 0, -9), {9, 1, -9}, {12, -1, -9}, {12, INT_MAX, -9}, {12, 2, 9}, {12, 2, 0}}) {
        jbyteArray output = javaArray(length);
        EXPECT_EQ(Native(take)(env, nullptr, output, place, handle), result) << place;
        const Bytes frame{0xEE, 0xEE, 0xFF, 0xF1, 0x50, 0x80, 0x01, 0x3F, 0xFC, 0x21, 0x21, 0xEE};
        EXPECT_EQ(bytesOf(output), result > 0 ? frame : Bytes(static_cast<size_t>(length), 0xEE));
    }
    EXPECT_EQ(takeException(), "");
    Native(close)(env, nullptr, handle);
}

// A refusal leaves all as it was.
TEST(EngineContainer, RefusesWhatWouldBreakAContainer) {
    const auto code = [](const char* name) {
#define CODE(name)                                                                                           \
    { #name, com_kelvane_media_transform_codec_Muxer_##name }
        static const std::map<std::string, int> codes{
            CODE(WRONG_CALL), CODE(WRONG_UNIT), CODE(NOT_RISING),    CODE(OUT_OF_RANGE),
            CODE(TOO_EARLY),  CODE(LEFT_OUT),   CODE(FRAGMENT_FULL), CODE(SHOWN_BEFORE_DECODED)};
#undef CODE
        return codes.at(name);
    };
    const Bytes picture = accessUnits("baseline.h264").at(0), aac(100, 1), large(size_t{1} << 24, 1);
    Bytes largePicture = picture;
    largePicture.resize(size_t{1} << 24, 1);
    const int64_t hour = 90'000 * 3600;
    const struct {
        const char* format;
        int options, track;
        Unit unit;
        const char* refusal;
    } cases[] = {
        {"mp4", 1, 2, {picture, 0, 0, 0, true}, "WRONG_CALL"},
        {"mp4", 1, -1, {picture, 0, 0, 0, true}, "WRONG_CALL"},
        {"mp4", 1, 0, {{}, 90'000, 90'000, 0, true}, "WRONG_UNIT"},
        {"mp4", 1, 0, {{0, 0, 2, 1, 5}, 90'000, 90'000, 0, true}, "WRONG_UNIT"},
        {"mp4", 1, 1, {{0xFF, 0xF3, 0}, 90'000, 90'000, 0, true}, "WRONG_UNIT"},
        {"flv", 0, 0, {largePicture, 90'000, 90'000, 0, true}, "WRONG_UNIT"},
        {"mpegts", 0, 1, {Bytes(8185, 1), 90'000, 90'000, 0, true}, "WRONG_UNIT"},
        {"mp4", 1, 0, {picture, 5, 5, 0, true}, "NOT_RISING"},
        {"flv", 0, 0, {picture, 4, 4, 0, true}, "NOT_RISING"},
        {"mp4", 1, 0, {picture, 90'000, 90'001, 0, true}, "SHOWN_BEFORE_DECODED"},
        {"mp4", 1, 0, {picture, 90'000, 90'000, -1, true}, "OUT_OF_RANGE"},
        {"mp4", 1, 0, {picture, INT64_MAX, INT64_MAX, 0, true}, "OUT_OF_RANGE"},
        {"mp4", 1, 0, {picture, INT64_MAX, INT64_MIN, 0, true}, "OUT_OF_RANGE"},
        {"mp4", 1, 0, {picture, 90'000, 90'000, INT64_MAX, true}, "OUT_OF_RANGE"},
        {"mp4", 2, 0, {picture, 4 * hour, 4 * hour, 0, true}, "OUT_OF_RANGE"},
        {"mp4", 1, 0, {picture, 8 * hour, 10, 0, true}, "OUT_OF_RANGE"},
        {"mp4", 1, 1, {aac, -1, -1, 0, true}, "LEFT_OUT"},
        {"flv", 0, 1, {aac, -1024, -1024, 0, true}, "LEFT_OUT"},
    };
    for (const auto& [format, options, number, unit, refusal] : cases) {
        SCOPED_TRACE(std::string(format) + " " + refusal);
        Muxer muxer;
        ASSERT_TRUE(muxer.open(format, options));
        ASSERT_TRUE(add(muxer, pictures(false)));
        ASSERT_TRUE(add(muxer, sound(Muxer::aac)));
        EXPECT_EQ(write(muxer, 0, {picture, 0, 0, 0, true}), code("WRONG_CALL")); // not begun
        ASSERT_GE(muxer.begin(1), 0);
        ASSERT_GE(write(muxer, 0, {picture, 5, 5, 0, true}), 0);
        const int64_t before = muxer.pending();
        if (options == Muxer::fragmented) {
            EXPECT_EQ(muxer.cut(5), code("NOT_RISING"));
            EXPECT_EQ(muxer.cut(INT64_MAX), code("OUT_OF_RANGE"));
            EXPECT_EQ(muxer.cut(4 * hour), code("OUT_OF_RANGE"));
        }
        EXPECT_EQ(write(muxer, number, unit), code(refusal));
        EXPECT_EQ(muxer.pending(), before);
        EXPECT_GE(write(muxer, 0, {picture, 3600, 3600, 0, true}), 0);
        EXPECT_GE(write(muxer, 1, {aac, 0, 0, 0, true}) != code("LEFT_OUT"), std::string(format) != "flv");
        EXPECT_GE(muxer.finish(), 0);
        EXPECT_EQ(write(muxer, 0, {picture, 7200, 7200, 0, true}), code("WRONG_CALL"));
    }
    for (const auto& [format, options] : {std::pair("mp4", 1), {"flv", 0}, {"matroska", 0}}) {
        Muxer muxer;
        beginPictures(muxer, format, options);
        EXPECT_EQ(write(muxer, 0, {picture, -1, -1, 0, true}), code("TOO_EARLY")) << format;
    }
    const size_t held = mallinfo2().hblkhd;
    Muxer full;
    beginPictures(full, "mp4", Muxer::fragmented);
    int written = 0;
    while (write(full, 0, {largePicture, written, written, 1, true}) >= 0)
        ++written;
    EXPECT_EQ(written, 4); // of 16 MB
    EXPECT_EQ(write(full, 0, {picture, written, written, 1, true}), code("FRAGMENT_FULL"));
    EXPECT_GT(full.cut(untold), 4 << 24);
    EXPECT_GE(write(full, 0, {picture, written, written, 1, true}), 0);
    Output().take(full);
    EXPECT_LT(mallinfo2().hblkhd, held + (1 << 20)) << "what was handed out is freed";
    for (const auto& [format, options] :
         {std::pair("mp4", 0), {"flv", 1}, {"mp4", 3}, {"matroska", 6}, {"hls", 0}, {"", 0}})
        EXPECT_FALSE(Muxer().open(format, options)) << format;
}

// A live stream of days: what was handed out is held nowhere.
TEST(EngineContainer, TakesNoMemoryForWhatWasTaken) {
    const Bytes picture = accessUnits("baseline.h264").at(0);
    for (const auto& [format, options] : {std::pair("mp4", int{Muxer::fragmented}), std::pair("mpegts", 0),
                                          std::pair("flv", 0), std::pair("matroska", 0)}) {
        Muxer muxer;
        beginPictures(muxer, format, options);
        size_t held[2] = {};
        int64_t time = 0, taken = 0;
        for (size_t& after : held) {
            for (int n = 0; n < 20'000; ++n, time += 3600) {
                ASSERT_GE(write(muxer, 0, {picture, time, time, 0, true}), 0);
                if (n % 10 == 9 && options) {
                    ASSERT_GT(muxer.cut(untold), 0);
                }
                for (; const Muxer::Piece* piece = muxer.next(); muxer.take())
                    taken += piece->size;
            }
            after = mallinfo2().uordblks;
        }
        EXPECT_GT(taken, 40'000 * static_cast<int64_t>(picture.size()) * 9 / 10) << format;
        EXPECT_LT(held[1], held[0] + 50'000) << format;
    }
}
