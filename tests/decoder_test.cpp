#include "com_kelvane_media_transform_codec_AVCDecoder.h"
#include "support/JavaMachine.h"
#include "support/Output.h"
#include "video/AVCDecoder.h"

#include <gtest/gtest.h>

#include <algorithm>

#define AVCDecoder(name) Java_com_kelvane_media_transform_codec_AVCDecoder_##name

namespace {

signed char* signedBytes(Bytes& bytes) { return reinterpret_cast<signed char*>(bytes.data()); }

// A decoder as Java has it.
class JavaDecoder {
public:
    JavaDecoder() {
        printedBy([&] { handle = AVCDecoder(open)(javaEnv(), nullptr); });
    }
    ~JavaDecoder() {
        printedBy([&] { AVCDecoder(close)(javaEnv(), nullptr, handle); });
    }
    int decode(const Bytes& input, jbyteArray info, jbyteArray output) {
        return AVCDecoder(decode)(javaEnv(), nullptr, javaArray(input), info, output, handle);
    }
    jlong handle = 0;
};

} // namespace

TEST(Decoder, PicturesEqualFFmpegsOwn) {
    const struct {
        const char* vector;
        size_t heldBack; // by reordering, at the end of the stream
    } cases[] = {{"baseline.h264", 0},
                 {"bframes.h264", 2},
                 {"size_change.h264", 0},
                 {"yuv422.h264", 0},
                 {"odd.h264", 0}};
    for (const auto& [vector, heldBack] : cases) {
        SCOPED_TRACE(vector);
        const std::vector<Bytes> units = accessUnits(vector);
        const std::vector<Picture> expected = referenceDecode(units);
        ASSERT_EQ(expected.size(), units.size());
        JavaDecoder decoder;
        size_t decoded = 0;
        printedBy([&] {
            for (const Bytes& unit : units) {
                const LocalFrame references;
                const Picture& next = expected.at(decoded);
                jbyteArray info = javaArray(6), output = javaArray(static_cast<int>(next.i420.size()));
                const int result = decoder.decode(unit, info, output);
                if (result == 0) continue;
                ASSERT_EQ(result, 1);
                EXPECT_TRUE(bytesOf(output) == next.i420) << "picture " << decoded;
                const auto byte = [](int value) { return static_cast<uint8_t>(value); };
                EXPECT_EQ(bytesOf(info),
                          (Bytes{1, byte(next.width >> 8), byte(next.width), byte(next.height >> 8),
                                 byte(next.height), byte(next.format)}));
                ++decoded;
            }
        });
        EXPECT_EQ(decoded, units.size() - heldBack);
    }
}

TEST(EngineDecoder, PicturesCarryTheTimestampOfTheirAccessUnit) {
    std::vector<Bytes> units = accessUnits("bframes.h264");
    const std::vector<Picture> expected = referenceDecode(units);
    constexpr uint32_t first = 4294967000; // the last timestamps are beyond 2^32 / 1000 and near 2^32
    VideoDecoder decoder;
    size_t decoded = 0;
    printedBy([&] {
        decoder.open();
        for (uint32_t i = 0; i < units.size(); ++i) {
            const int result =
                decoder.decode(signedBytes(units[i]), static_cast<int>(units[i].size()), first + i);
            EXPECT_EQ(decoder.pictureReady, result);
            EXPECT_EQ(decoder.timestamp, first + i);
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
            if (result == 1) {
                EXPECT_EQ(decoder.frame->pkt_pts, (first + expected[decoded++].accessUnit) * 1000);
            }
        }
        decoder.close();
        decoder.close();
    });
    EXPECT_EQ(decoded, units.size() - 2);
    EXPECT_FALSE(std::is_sorted(expected.begin(), expected.end(), [](auto& a, auto& b) {
        return a.accessUnit < b.accessUnit;
    })) << "the vector is to reorder";
}

TEST(Decoder, PrintsWhatHappensToIt) {
    const LocalFrame references;
    jlong handle = 0;
    EXPECT_EQ(printedBy([&] { handle = AVCDecoder(open)(javaEnv(), nullptr); }),
              "AVC decoder codec opened 0\n");
    ASSERT_NE(handle, 0);
    EXPECT_EQ(reinterpret_cast<VideoDecoder*>(handle)->handle, handle);
    jbyteArray info = javaArray(6), output = javaArray(160 * 96 * 3 / 2);
    std::vector<int> results;
    const std::string printed = printedBy([&] {
        for (const Bytes& unit : accessUnits("size_change.h264"))
            results.push_back(AVCDecoder(decode)(javaEnv(), nullptr, javaArray(unit), info, output, handle));
    });
    const std::string mismatch = "AVC decoder warning, picSize  != outLeng  86400\n";
    EXPECT_EQ(printed, "set/update w:160  h:96\nset/update w:320  h:180\n" + mismatch + mismatch + mismatch +
                           mismatch + mismatch + "set/update w:160  h:96\n");
    EXPECT_EQ(results,
              (std::vector<int>{1, 1, 1, 1, 1, -86400, -86400, -86400, -86400, -86400, 1, 1, 1, 1, 1}));
    EXPECT_EQ(printedBy([&] { AVCDecoder(close)(javaEnv(), nullptr, handle); }),
              "AVC decoder codec closed\n");
    EXPECT_EQ(printedBy([&] { AVCDecoder(close)(javaEnv(), nullptr, 0); }), "");
}

TEST(EngineDecoder, RejectsInputWithoutALongStartCode) {
    VideoDecoder decoder;
    printedBy([&] { decoder.open(); });
    const struct {
        Bytes input;
        const char* printed;
    } rejected[] = {
        {{0, 0, 1, 101, 136}, "bad input to decoder 5  0  0  1  101\n   "},
        {{0, 0, 0, 2, 103}, "bad input to decoder 5  0  0  0  2\n   "},
        {{0, 0, 255, 128}, "bad input to decoder 4  0  0  -1  -128\n   "},
        {{0, 0, 1}, "bad input to decoder 3  0  0  1  0\n   "},
        {{}, "bad input to decoder 0  0  0  0  0\n   "},
    };
    decoder.timestamp = 77;
    for (auto [input, expected] : rejected) {
        input.shrink_to_fit();
        decoder.pictureReady = 1;
        int result = 0;
        EXPECT_EQ(printedBy([&] {
                      result = decoder.decode(signedBytes(input), static_cast<int>(input.size()), 5);
                  }),
                  expected);
        EXPECT_EQ(result, -1);
        EXPECT_EQ(decoder.pictureReady, 0);
        EXPECT_EQ(decoder.timestamp, 77u);
    }
    Bytes startCode{0, 0, 0, 1};
    EXPECT_EQ(decoder.decode(signedBytes(startCode), 4, 6), 0);
    EXPECT_EQ(decoder.timestamp, 6u);

    VideoDecoder neverOpened;
    EXPECT_EQ(neverOpened.decode(signedBytes(startCode), 4, 6), 0);
}

TEST(Decoder, NullArraysAndShortInfoAreHarmless) {
    const LocalFrame references;
    JNIEnv* env = javaEnv();
    JavaDecoder decoder;
    const Bytes unit = accessUnits("baseline.h264").at(0);
    jbyteArray input = javaArray(unit), info = javaArray(6), output = javaArray(176 * 144 * 3 / 2);
    const std::string printed = printedBy([&] {
        EXPECT_EQ(AVCDecoder(decode)(env, nullptr, nullptr, info, output, decoder.handle), 0);
        EXPECT_EQ(AVCDecoder(decode)(env, nullptr, input, nullptr, output, decoder.handle), 0);
        EXPECT_EQ(AVCDecoder(decode)(env, nullptr, input, info, nullptr, decoder.handle), 0);
        EXPECT_EQ(AVCDecoder(decode)(env, nullptr, input, info, output, 0), 0);
    });
    EXPECT_EQ(printed, "");
    EXPECT_EQ(bytesOf(info), Bytes(6, 0xEE));
    printedBy([&] { EXPECT_EQ(decoder.decode(unit, javaArray(5), output), 1); });
    EXPECT_EQ(takeException(), "java.lang.ArrayIndexOutOfBoundsException");
    EXPECT_TRUE(bytesOf(output) == referenceDecode({unit}).at(0).i420);
}

TEST(EngineDecoder, RecoversFromCorruptStreams) {
    const std::vector<Bytes> good = accessUnits("bframes.h264");
    const std::vector<Picture> expected = referenceDecode(good);
    uint32_t random = 1;
    const auto next = [&](size_t range) { return (random = random * 1664525 + 1013904223) % range; };
    VideoDecoder decoder;
    std::string printed = printedBy([&] {
        decoder.open();
        for (int round = 0; round < 20; ++round) {
            for (Bytes unit : good) {
                for (int flips = 0; flips < 4; ++flips)
                    unit[4 + next(unit.size() - 4)] ^= static_cast<uint8_t>(1 << next(8));
                unit.resize(4 + next(unit.size() - 3));
                const int result = decoder.decode(signedBytes(unit), static_cast<int>(unit.size()), 0);
                ASSERT_TRUE(result == 0 || result == 1);
            }
        }
    });
    // From its next IDR picture on, the good stream decodes as ever; what the wrecks left behind comes out
    // before.
    std::vector<int64_t> units;
    printed += printedBy([&] {
        for (size_t i = 0; i < good.size(); ++i) {
            Bytes unit = good[i];
            if (decoder.decode(signedBytes(unit), static_cast<int>(unit.size()),
                               static_cast<uint32_t>(i + 1)) == 1)
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
                if (decoder.frame->pkt_pts > 0) units.push_back(decoder.frame->pkt_pts / 1000 - 1);
        }
        decoder.close();
    });
    ASSERT_GT(units.size(), 12u);
    std::vector<int64_t> order;
    for (size_t i = 0; i < units.size(); ++i)
        order.push_back(expected[i].accessUnit);
    EXPECT_EQ(units, order);
}
