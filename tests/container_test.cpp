#include "container/Muxer.h"

#include "com_kelvane_media_transform_codec_Muxer.h"
#include "fuzz/Subjects.h"
#include "support/Media.h"

extern "C" {
#include <libavutil/intreadwrite.h>
}

#include <gtest/gtest.h>
#include <malloc.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <functional>
#include <map>

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
TestTrack pictures(const char* file, bool reordered, int ticks = 90'000, int64_t begin = 0) {
    TestTrack track{Muxer::h264, ticks};
    const int64_t step = ticks / 25;
    for (const Bytes& bytes : accessUnits(file)) {
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
    ASSERT_TRUE(add(muxer, pictures("baseline.h264", false)));
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

// All tracks in the order of their decoding times. `cutHere` tells ahead of which units of track 0 a fragment
// ends. What was left out goes out of the tracks.
void writeAll(Muxer& muxer, std::vector<TestTrack>& tracks, Output& output,
              const std::function<void(const Unit&)>& before = {}) {
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
        if (before && next == 0) before(unit);
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

struct ReadUnit {
    Bytes bytes;
    double time; // of presentation, in seconds
    bool key;
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
std::vector<std::vector<ReadUnit>> readBack(const Bytes& file) {
    struct Input {
        const Bytes& bytes;
        size_t at = 0;
    } input{file};
    AVFormatContext* format = avformat_alloc_context();
    constexpr int size = 4096;
    StreamOwner stream(avio_alloc_context(
        static_cast<uint8_t*>(av_malloc(size)), size, 0, &input,
        [](void* opaque, uint8_t* to, int most) {
            auto& in = *static_cast<Input*>(opaque);
            const auto count = std::min(static_cast<size_t>(most), in.bytes.size() - in.at);
            if (count == 0) return AVERROR_EOF;
            std::copy_n(in.bytes.begin() + static_cast<ptrdiff_t>(in.at), count, to);
            in.at += count;
            return static_cast<int>(count);
        },
        nullptr,
        [](void* opaque, int64_t place, int whence) {
            auto& in = *static_cast<Input*>(opaque);
            if (whence & AVSEEK_SIZE) return static_cast<int64_t>(in.bytes.size());
            in.at = std::min(static_cast<size_t>(place), in.bytes.size());
            return place;
        }));
    format->pb = stream.get();
    std::vector<std::vector<ReadUnit>> tracks;
    if (avformat_open_input(&format, nullptr, nullptr, nullptr) < 0) return tracks;
    avformat_find_stream_info(format, nullptr);
    AVPacket packet;
    tracks.resize(format->nb_streams);
    while (av_read_frame(format, &packet) == 0) {
        const AVStream& from = *format->streams[packet.stream_index];
        const bool lengths = from.codecpar->extradata_size > 0 && from.codecpar->extradata[0] == 1;
        tracks[static_cast<size_t>(packet.stream_index)].push_back(
            {essence(packet.data, packet.size, from.codecpar->codec_id, lengths),
             double(packet.pts) * av_q2d(from.time_base), (packet.flags & AV_PKT_FLAG_KEY) != 0});
        av_packet_unref(&packet);
    }
    avformat_close_input(&format);
    return tracks;
}

void expectSame(const ReadUnit& read, const Unit& unit, Muxer::Codec codec, const std::string& name) {
    constexpr AVCodecID ids[] = {AV_CODEC_ID_H264, AV_CODEC_ID_AAC, AV_CODEC_ID_MP3, AV_CODEC_ID_OPUS};
    const auto size = static_cast<int>(unit.bytes.size());
    EXPECT_TRUE(read.bytes == essence(unit.bytes.data(), size, ids[codec], false)) << name;
    EXPECT_EQ(read.key, unit.key) << name;
}

Bytes joined(const std::vector<ReadUnit>& units) {
    Bytes all;
    for (const ReadUnit& unit : units)
        all.insert(all.end(), unit.bytes.begin(), unit.bytes.end());
    return all;
}

// The boxes of MP4: an own reader, apart from what wrote them.
struct Box {
    std::string type;
    size_t begin, end; // of its contents
};

std::vector<Box> boxesIn(const Bytes& bytes, size_t begin, size_t end) {
    std::vector<Box> boxes;
    for (size_t at = begin; at + 8 <= end;) {
        const size_t size = AV_RB32(bytes.data() + at);
        if (size < 8 || size > end - at) {
            ADD_FAILURE() << "a box of " << size << " bytes at " << at;
            break;
        }
        boxes.push_back({std::string(bytes.begin() + static_cast<ptrdiff_t>(at) + 4,
                                     bytes.begin() + static_cast<ptrdiff_t>(at) + 8),
                         at + 8, at + size});
        at += size;
    }
    return boxes;
}

// The boxes of that path, "moof.traf.trun" for instance.
std::vector<Box> find(const Bytes& bytes, const std::string& path, size_t begin = 0, size_t end = SIZE_MAX) {
    std::vector<Box> found;
    for (const Box& box : boxesIn(bytes, begin, std::min(end, bytes.size())))
        if (box.type == path.substr(0, 4)) {
            if (path.size() == 4)
                found.push_back(box);
            else
                for (const Box& inner : find(bytes, path.substr(5), box.begin, box.end))
                    found.push_back(inner);
        }
    return found;
}

} // namespace

// What was written is read again by libavformat's demuxers: the same units, at the same times.
TEST(EngineContainer, GivesBackWhatItWasGiven) {
    using enum Muxer::Codec;
    constexpr int fast = Muxer::seekable | Muxer::fastStart;
    const auto picture = [] { return pictures("baseline.h264", false); };
    const auto reordered = [] { return pictures("baseline.h264", true); };
    const struct {
        const char* format;
        int options;
        std::vector<TestTrack> tracks;
        double tick;       // the container's, in seconds; 0 where it has no times
        double offset = 0; // of all times in it
    } cases[] = {
        {"mp4", Muxer::seekable, {picture(), sound(aac)}, 0},
        {"mp4",
         fast,
         {reordered(), sound(aac), sound(mp3), sound(opus)},
         1e-3}, // edit lists are in milliseconds
        {"mp4", fast, {pictures("baseline.h264", true, 1000, 740), sound(aac, 132'300)}, 1e-3},
        {"mp4", Muxer::fragmented, {picture(), sound(aac)}, 0},
        {"mp4",
         Muxer::fragmented,
         {pictures("baseline.h264", true, 90'000, 3600), sound(opus), sound(mp3)},
         0},
        {"mp4", Muxer::fragmented, {pictures("baseline.h264", true, 1000, 740), sound(aac, 132'300)}, 0},
        {"mov", Muxer::seekable, {reordered(), sound(aac), sound(pcm)}, 1e-3},
        {"mpegts", 0, {reordered(), sound(aac)}, 1. / 90'000, 1.4},
        {"mpegts", Muxer::seekable, {picture(), sound(mp3, 30'000), sound(opus)}, 1. / 90'000, 1.4},
        {"flv", 0, {pictures("baseline.h264", true, 90'000, 9000), sound(aac)}, 1e-3},
        {"flv", Muxer::seekable, {picture(), sound(mp3)}, 1e-3},
        {"matroska", 0, {reordered(), sound(aac)}, 1e-3},
        {"matroska", Muxer::seekable, {picture(), sound(mp3, 30'000), sound(opus), sound(pcm)}, 1e-3},
        {"ogg", 0, {sound(opus)}, 1. / 48'000},
        {"h264", 0, {picture()}, INFINITY},
        {"adts", 0, {sound(aac)}, INFINITY},
        {"wav", Muxer::seekable, {sound(pcm)}, INFINITY},
        {"wav", 0, {sound(pcm)}, INFINITY},
    };
    for (const auto& [format, options, given, tick, offset] : cases) {
        SCOPED_TRACE(std::string(format) + ", options " + std::to_string(options) + ", tracks " +
                     std::to_string(given.size()));
        std::vector<TestTrack> tracks = given;
        Muxer muxer;
        ASSERT_TRUE(muxer.open(format, options));
        for (const TestTrack& track : tracks)
            ASSERT_TRUE(add(muxer, track));
        ASSERT_GE(muxer.begin(1), 0);
        Output output;
        const auto cutAtKeys = [&](const Unit& unit) {
            if (options & Muxer::fragmented && unit.key) muxer.cut(unit.decoding);
        };
        writeAll(muxer, tracks, output, cutAtKeys);
        if (options & Muxer::fragmented) muxer.cut(untold);
        ASSERT_GE(muxer.finish(), 0);
        output.take(muxer);
        if (options & Muxer::fastStart) {
            const std::vector<Box> top = boxesIn(output.bytes, 0, output.bytes.size());
            EXPECT_EQ(top.at(1).type, "moov");
            EXPECT_EQ(top.back().type, "mdat");
        }
        const auto read = readBack(output.bytes);
        ASSERT_EQ(read.size(), tracks.size());
        for (size_t i = 0; i < tracks.size(); ++i) {
            SCOPED_TRACE("track " + std::to_string(i));
            const auto& units = tracks[i].units;
            ASSERT_GE(units.size(), given[i].units.size() - 1); // priming, where there are no edit lists
            if (tracks[i].codec == pcm) {
                Bytes all;
                for (const Unit& unit : units)
                    all.insert(all.end(), unit.bytes.begin(), unit.bytes.end());
                EXPECT_TRUE(joined(read[i]) == all);
                continue;
            }
            ASSERT_EQ(read[i].size(), units.size());
            for (size_t n = 0; n < units.size(); ++n) {
                const Unit& unit = units[n];
                expectSame(read[i][n], unit, tracks[i].codec, "unit " + std::to_string(n));
                if (std::isinf(tick)) continue;
                EXPECT_NEAR(read[i][n].time, double(unit.presentation) / tracks[i].ticks + offset,
                            tick + 1e-9)
                    << "unit " << n;
            }
        }
    }
}

// A fragment as a player reads it: what its boxes say of every unit.
TEST(EngineContainer, CutsFragmentsThatTellTheirOwnTimes) {
    const struct {
        TestTrack track;
        std::vector<int64_t> units; // in each fragment; 0 for all that are left
        int64_t gap = 0;            // ticks that are missing behind the first fragment
    } cases[] = {
        {pictures("baseline.h264", false), {10, 10, 10}},
        {pictures("baseline.h264", true), {10, 10, 10}},
        {pictures("baseline.h264", true, 1000, 500), {3, 4, 3, 20}}, // parts
        {pictures("baseline.h264", false, 30), {1, 1, 28}, 1000},
        {sound(Muxer::aac, 144'000), {7, 1, 0}, 500},
        {sound(Muxer::aac), {7, 0}},
    };
    for (const auto& [track, sizes, gap] : cases) {
        SCOPED_TRACE(std::to_string(track.codec) + ", first fragment " + std::to_string(sizes[0]));
        Muxer muxer;
        ASSERT_TRUE(muxer.open("mp4", Muxer::fragmented));
        ASSERT_TRUE(add(muxer, track,
                        {.pixelWidth = 64, .pixelHeight = 45, .rotation = 90, .range = 2, .primaries = 1}));
        ASSERT_GT(muxer.begin(5), 0);
        Output stream;
        stream.take(muxer);
        const Bytes header = stream.bytes;
        const std::vector<Box> trak = find(header, "moov.trak");
        ASSERT_EQ(trak.size(), 1u);
        EXPECT_EQ(find(header, "moov.trak.edts").size(), 0u);
        const Box media = find(header, "moov.trak.mdia.mdhd").at(0);
        EXPECT_EQ(AV_RB32(&header[media.begin + 12]), static_cast<uint32_t>(track.ticks));
        if (track.codec == Muxer::h264) {
            const Box turned = find(header, "moov.trak.tkhd").at(0);
            const uint32_t one = 65536, matrix[] = {0, one, 0, -one, 0, 0, 144 * one, 0, 1u << 30};
            for (size_t i = 0; i < 9; ++i)
                EXPECT_EQ(AV_RB32(&header[turned.begin + 40 + 4 * i]), matrix[i]);
            const Box entry = find(header, "moov.trak.mdia.minf.stbl.stsd").at(0);
            const std::vector<Box> avc = boxesIn(header, entry.begin + 8, entry.end);
            ASSERT_EQ(avc.at(0).type, "avc1");
            const Box shape = find(header, "pasp", avc[0].begin + 78, avc[0].end).at(0);
            EXPECT_EQ(AV_RB64(&header[shape.begin]), 64ull << 32 | 45);
            const Box colours = find(header, "colr", avc[0].begin + 78, avc[0].end).at(0);
            EXPECT_EQ(Bytes(&header[colours.begin], &header[colours.end]),
                      Bytes({'n', 'c', 'l', 'x', 0, 1, 0, 2, 0, 2, 128}));
        }

        std::vector<Unit> units = track.units;
        std::erase_if(units, [](const Unit& unit) { return unit.presentation < 0; });
        const int64_t shift = units[0].decoding < 0 ? units[0].presentation - units[0].decoding : 0;
        size_t next = 0;
        uint32_t sequence = 5;
        for (int64_t size : sizes) {
            if (size == 0) size = static_cast<int64_t>(units.size() - next);
            if (next == static_cast<size_t>(sizes[0]))
                for (size_t i = next; i < units.size(); ++i)
                    units[i].presentation += gap, units[i].decoding += gap;
            const size_t first = next;
            for (int64_t i = 0; i < size; ++i)
                ASSERT_GE(write(muxer, 0, units[next++]), 0);
            const bool last = next == units.size();
            const int64_t end =
                last ? 2 * units[next - 1].decoding - units[next - 2].decoding : units[next].decoding;
            ASSERT_GT(muxer.cut(last || gap ? untold : end), 0);
            const auto before = static_cast<ptrdiff_t>(stream.bytes.size());
            stream.take(muxer);
            const Bytes fragment(stream.bytes.begin() + before, stream.bytes.end());
            ASSERT_EQ(find(fragment, "moof").size(), 1u);
            ASSERT_EQ(find(fragment, "mdat").size(), 1u);
            EXPECT_EQ(AV_RB32(&fragment[find(fragment, "moof.mfhd").at(0).begin + 4]), sequence++);
            const uint32_t header_flags =
                AV_RB24(&fragment[find(fragment, "moof.traf.tfhd").at(0).begin + 1]);
            EXPECT_EQ(header_flags & 0x020001, 0x020000u); // places count from the moof
            const Box time = find(fragment, "moof.traf.tfdt").at(0);
            ASSERT_EQ(fragment[time.begin], 1);
            const auto decodeTime = static_cast<int64_t>(AV_RB64(&fragment[time.begin + 4]));
            EXPECT_EQ(decodeTime, units[first].decoding + shift);

            const Box run = find(fragment, "moof.traf.trun").at(0);
            const uint32_t flags = AV_RB24(&fragment[run.begin + 1]);
            const uint8_t* at = &fragment[run.begin + 4];
            const auto number = [&] { return at += 4, AV_RB32(at - 4); };
            ASSERT_EQ(number(), static_cast<uint32_t>(size));
            ASSERT_TRUE(flags & 1);
            size_t place = number();
            const Box defaults = find(fragment, "moof.traf.tfhd").at(0);
            // base-data-offset is not there; stsd index, then duration, size and flags where their bits are
            // set.
            const uint8_t* usual = &fragment[defaults.begin + 12];
            const auto usually = [&](uint32_t bit) {
                return header_flags & bit ? usual += 4, AV_RB32(usual - 4) : 0;
            };
            const uint32_t usualDuration = usually(8), usualSize = usually(16), usualFlags = usually(32);
            const uint32_t firstFlags = flags & 4 ? number() : usualFlags;
            int64_t decoding = decodeTime;
            for (size_t n = first; n < next; ++n) {
                SCOPED_TRACE("unit " + std::to_string(n));
                const uint32_t duration = flags & 0x100 ? number() : usualDuration;
                const uint32_t length = flags & 0x200 ? number() : usualSize;
                const uint32_t sampleFlags = flags & 0x400 ? number() : n == first ? firstFlags : usualFlags;
                const int64_t offset = flags & 0x800 ? static_cast<int32_t>(number()) : 0;
                EXPECT_EQ(decoding + offset, units[n].presentation);
                EXPECT_EQ(!(sampleFlags & 0x10000), units[n].key);
                const Unit& unit = units[n];
                ASSERT_LE(place + length, fragment.size());
                if (track.codec == Muxer::h264) {
                    EXPECT_TRUE(essence(&fragment[place], static_cast<int>(length), AV_CODEC_ID_H264, true) ==
                                essence(unit.bytes.data(), static_cast<int>(unit.bytes.size()),
                                        AV_CODEC_ID_H264, false));
                } else {
                    EXPECT_TRUE(Bytes(&fragment[place], &fragment[place] + length) == unit.bytes);
                }
                place += length;
                decoding += duration;
            }
            EXPECT_EQ(place, find(fragment, "mdat").at(0).end); // nothing else is in it
            if (!gap) {
                EXPECT_EQ(decoding, end + shift);
            }
            const TrackRun& told = *muxer.run(0);
            EXPECT_EQ(told.decodeTime, decodeTime);
            EXPECT_EQ(told.duration, decoding - decodeTime);
            EXPECT_EQ(told.units, size);
            EXPECT_EQ(told.key, units[first].key);
        }
    }
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
        ASSERT_TRUE(add(muxer, pictures("baseline.h264", false)));
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
    Muxer full;
    beginPictures(full, "mp4", Muxer::fragmented);
    int written = 0;
    while (write(full, 0, {largePicture, written, written, 1, true}) >= 0)
        ++written;
    EXPECT_EQ(written, 4); // of 16 MB
    EXPECT_EQ(write(full, 0, {picture, written, written, 1, true}), code("FRAGMENT_FULL"));
    EXPECT_GT(full.cut(untold), 4 << 24);
    EXPECT_GE(write(full, 0, {picture, written, written, 1, true}), 0);
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
