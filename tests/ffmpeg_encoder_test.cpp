#include "com_kelvane_media_transform_codec_OpenH264Encoder.h"
#include "support/JavaMachine.h"
#include "support/Output.h"
#include "video/OpenH264Encoder.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <random>

#define OpenH264Encoder(name) Java_com_kelvane_media_transform_codec_OpenH264Encoder_##name

namespace {

int encode(VideoEncoder& encoder, Bytes& data, uint32_t timestamp = 0) {
    return encoder.encode(reinterpret_cast<signed char*>(data.data()), static_cast<int>(data.size()),
                          timestamp);
}

std::string openWith(VideoEncoder& encoder, int width, int height, int frameRate, int bitRate) {
    av_log_set_level(AV_LOG_QUIET);
    encoder.width = width;
    encoder.height = height;
    encoder.frameRate = frameRate;
    encoder.bitRate = bitRate;
    return printedBy([&] { encoder.open(); });
}

// Black and white.
Bytes noise(size_t size) {
    std::minstd_rand random(1);
    Bytes bytes(size);
    std::generate(bytes.begin(), bytes.end(), [&] { return random() & 256 ? 255 : 0; });
    return bytes;
}

// A packed picture of 175x99 that gets brighter with `time`, or its first columns and rows of luma only.
Bytes oddPicture(size_t time, size_t columns = 175, size_t rows = 99) {
    Bytes bytes;
    for (size_t i = 0; i < columns * rows; ++i)
        bytes.push_back(static_cast<uint8_t>(16 + i % columns / 2 + i / columns / 2 + time));
    for (size_t i = 0; i < 2 * 87 * 49; ++i)
        bytes.push_back(static_cast<uint8_t>(60 + i % 87 + time));
    return bytes;
}

} // namespace

TEST(EngineFFmpegEncoder, StreamsDecodeToWhatWasEncoded) {
    VideoEncoder encoder;
    openWith(encoder, 175, 99, 0, 2000000);
    EXPECT_EQ(encoder.context->bit_rate, 2000000);
    EXPECT_EQ(encoder.context->time_base.den, 15);
    std::vector<Bytes> units;
    constexpr uint32_t first = 4294968 - 30; // from here on, times 1000, beyond 32 bits
    for (uint32_t i = 0; i < 65; ++i) {
        Bytes data = oddPicture(i);
        ASSERT_EQ(encode(encoder, data, first + i), 1) << i;
        EXPECT_EQ(encoder.encodedTimestamp, static_cast<int>(first + i));
        units.emplace_back(data.begin(), data.begin() + encoder.encodedSize);
        const std::vector<int> types = nalTypes(units.back());
        EXPECT_EQ(std::count(types.begin(), types.end(), 5) > 0, i % 30 == 0) << "two seconds, picture " << i;
    }
    const std::vector<Picture> decoded = referenceDecode(units);
    ASSERT_EQ(decoded.size(), units.size());
    for (size_t i = 0; i < decoded.size(); ++i) {
        const Bytes expected = oddPicture(i, 174, 98); // the encoder drops the last column and row
        ASSERT_EQ(decoded[i].i420.size(), expected.size());
        EXPECT_GT(psnr(decoded[i].i420, expected, expected.size()), 40) << i;
    }
    encoder.close();
    encoder.close();
    Bytes data = oddPicture(0);
    EXPECT_EQ(encode(encoder, data), 0);
}

TEST(EngineFFmpegEncoder, ImpossibleParametersYieldNothing) {
    const int cases[][4] = {{0, 0, 15, 256000},     {-16, 16, 15, 256000},        {INT_MAX, INT_MAX, 15, 1},
                            {176, 144, INT_MIN, 1}, {176, 144, INT_MAX, INT_MAX}, {176, 144, 15, INT_MIN}};
    for (const auto& [width, height, frameRate, bitRate] : cases) {
        VideoEncoder encoder;
        const std::string printed = openWith(encoder, width, height, frameRate, bitRate);
        EXPECT_EQ(printed.find("AVC encoder codec not opened -") != std::string::npos, encoder.status != 0);
        EXPECT_TRUE(width == 176 || encoder.status == 1);
        const Bytes before = noise(176 * 144 * 3 / 2);
        Bytes data = before;
        EXPECT_EQ(encode(encoder, data) == 1, data != before);
    }
}

// The access unit of noise is longer than the picture.
TEST(EngineFFmpegEncoder, NeitherReadsNorWritesPastTheCallersBuffer) {
    constexpr size_t pictureSize = 16 * 16 * 3 / 2;
    for (const size_t length : {pictureSize - 1, pictureSize, size_t{2000}}) {
        VideoEncoder encoder;
        openWith(encoder, 16, 16, 15, 10000000);
        const Bytes before = noise(length);
        Bytes data = before; // without a byte to spare
        const std::string printed = printedBy([&] { EXPECT_EQ(encode(encoder, data), length == 2000); });
        EXPECT_EQ(printed, length == pictureSize ? "AVC encoder failed to encode frame\n" : "");
        EXPECT_EQ(encoder.encodedSize > int{pictureSize}, length == 2000);
        EXPECT_EQ(data == before, length != 2000);
    }
}

TEST(FFmpegEncoder, LimitsItsParametersAndFillsItsArrays) {
    const LocalFrame references;
    JNIEnv* env = javaEnv();
    const Bytes picture = referenceDecode(accessUnits("baseline.h264")).at(0).i420;
    const std::tuple<int, int, std::string> cases[] = {
        {-5, 255999, " : 144 : 15 : 256000\nAVC encoder codec opened"},
        {45, 256001, " : 144 : 30 : 256001\nAVC encoder codec opened"}};
    for (const auto& [frameRate, bitRate, configured] : cases) {
        jlong handle = 0;
        const std::string printed =
            printedBy([&] { handle = OpenH264Encoder(open)(env, nullptr, 176, 144, frameRate, bitRate, 9); });
        EXPECT_EQ(printed.find("Codec init\navcodec_open2: 176 " + configured), 0u) << printed;
        EXPECT_EQ(OpenH264Encoder(status)(env, nullptr, handle), 0);
        jbyteArray data = javaArray(picture), info = javaArray(8);
        EXPECT_EQ(OpenH264Encoder(encode)(env, nullptr, data, info, handle), 1);
        const auto size = static_cast<ptrdiff_t>(reinterpret_cast<VideoEncoder*>(handle)->encodedSize);
        EXPECT_EQ(bytesOf(info),
                  (Bytes{1, 0, 0, static_cast<uint8_t>(size >> 8), static_cast<uint8_t>(size), 1, 0, 0xEE}));
        const Bytes encoded = bytesOf(data);
        EXPECT_EQ(Bytes(encoded.begin(), encoded.begin() + 4), (Bytes{0, 0, 0, 1}));
        EXPECT_TRUE(std::equal(encoded.begin() + size, encoded.end(), picture.begin() + size));
        EXPECT_EQ(OpenH264Encoder(encode)(env, nullptr, javaArray(picture), javaArray(6), handle), 1);
        EXPECT_EQ(takeException(), "java.lang.ArrayIndexOutOfBoundsException");
        EXPECT_EQ(OpenH264Encoder(encode)(env, nullptr, javaArray(100), info, handle), 0);
        EXPECT_EQ(printedBy([&] { OpenH264Encoder(close)(env, nullptr, handle); }),
                  "AVC encoder codec closed\n");
    }
    const jlong unopened = OpenH264Encoder(open)(env, nullptr, 0, 0, 15, 0, 0);
    EXPECT_GT(unopened, 0);
    EXPECT_EQ(OpenH264Encoder(status)(env, nullptr, unopened), 1);
    OpenH264Encoder(close)(env, nullptr, unopened);
}
