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

int encode(VideoEncoder& encoder, Bytes& data) {
    return encoder.encode(reinterpret_cast<signed char*>(data.data()), static_cast<int>(data.size()), 0);
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

} // namespace

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
    const struct {
        int frameRate, bitRate, usedRate, usedBits;
    } cases[] = {{-5, 255999, 15, 256000}, {45, 256001, 30, 256001}};
    for (const auto& [frameRate, bitRate, usedRate, usedBits] : cases) {
        jlong handle = 0;
        const std::string printed =
            printedBy([&] { handle = OpenH264Encoder(open)(env, nullptr, 176, 144, frameRate, bitRate, 9); });
        EXPECT_TRUE(
            printed.starts_with("Codec init\navcodec_open2: 176  : 144 : " + std::to_string(usedRate) +
                                " : " + std::to_string(usedBits) + "\nAVC encoder codec opened"))
            << printed;
        const AVCodecContext& context = *reinterpret_cast<VideoEncoder*>(handle)->context;
        EXPECT_EQ((std::tuple(context.bit_rate, context.time_base.den, context.gop_size)),
                  (std::tuple(usedBits, usedRate, 2 * usedRate)));
        EXPECT_EQ(OpenH264Encoder(status)(env, nullptr, handle), 0);
        jbyteArray data = javaArray(picture), info = javaArray(8);
        EXPECT_EQ(OpenH264Encoder(encode)(env, nullptr, data, info, handle), 1);
        const auto size = static_cast<ptrdiff_t>(reinterpret_cast<VideoEncoder*>(handle)->encodedSize);
        EXPECT_EQ(bytesOf(info),
                  (Bytes{1, 0, 0, static_cast<uint8_t>(size >> 8), static_cast<uint8_t>(size), 1, 0, 0xEE}));
        EXPECT_EQ(OpenH264Encoder(encode)(env, nullptr, nullptr, info, handle), 0);
        EXPECT_EQ(OpenH264Encoder(encode)(env, nullptr, javaArray(picture), nullptr, handle), 0);
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
