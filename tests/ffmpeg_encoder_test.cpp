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

int encode(VideoEncoder& encoder, Bytes& data, uint32_t timestamp) {
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
    bytes.shrink_to_fit();
    return bytes;
}

} // namespace

TEST(EngineFFmpegEncoder, StreamsDecodeToWhatWasEncoded) {
    const std::vector<Picture> source = referenceDecode(accessUnits("bframes.h264"));
    VideoEncoder encoder;
    openWith(encoder, source[0].width, source[0].height, 0, 2000000);
    ASSERT_EQ(encoder.status, 0);
    std::vector<Bytes> units;
    constexpr uint32_t first = 4294968 - 30; // from here on, times 1000, beyond 32 bits
    for (uint32_t i = 0; i < 65; ++i) {
        const Bytes& picture = source[i % source.size()].i420;
        Bytes data = picture;
        ASSERT_EQ(encode(encoder, data, first + i), 1) << i;
        EXPECT_EQ(encoder.encodedTimestamp, static_cast<int>(first + i));
        const auto size = static_cast<ptrdiff_t>(encoder.encodedSize);
        EXPECT_TRUE(std::equal(data.begin() + size, data.end(), picture.begin() + size));
        units.emplace_back(data.begin(), data.begin() + size);
        EXPECT_EQ(Bytes(data.begin(), data.begin() + 4), (Bytes{0, 0, 0, 1}));
        const std::vector<int> types = nalTypes(units.back());
        const bool keyFrame = std::count(types.begin(), types.end(), 5) > 0;
        EXPECT_EQ(keyFrame, i % 30 == 0) << "two seconds are 30 pictures, picture " << i;
    }
    const std::vector<Picture> decoded = referenceDecode(units);
    ASSERT_EQ(decoded.size(), units.size());
    for (size_t i = 0; i < decoded.size(); ++i) {
        const Bytes& original = source[i % source.size()].i420;
        EXPECT_GT(psnr(decoded[i].i420, original, original.size()), 40) << i;
    }
    encoder.close();
    encoder.close();
    Bytes data = source[0].i420;
    EXPECT_EQ(encode(encoder, data, 0), 0);
    EXPECT_TRUE(data == source[0].i420);
}

TEST(EngineFFmpegEncoder, OddSizesKeepTheirRows) {
    constexpr int width = 175, height = 99, chromaWidth = 87, chromaHeight = 49;
    Bytes picture;
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; ++x)
            picture.push_back(static_cast<uint8_t>(16 + x + y / 2));
    for (int i = 0; i < 2 * chromaWidth * chromaHeight; ++i)
        picture.push_back(static_cast<uint8_t>(60 + i % chromaWidth));
    ASSERT_EQ(picture.size(), 25851u);
    picture.shrink_to_fit();
    VideoEncoder encoder;
    openWith(encoder, width, height, 15, 2000000);
    Bytes data = picture;
    ASSERT_EQ(encode(encoder, data, 0), 1);
    data.resize(static_cast<size_t>(encoder.encodedSize));
    const Picture decoded = referenceDecode({data}).at(0);
    ASSERT_EQ(decoded.width, 174) << "the encoder drops the last column and row";
    ASSERT_EQ(decoded.height, 98);
    Bytes expected;
    for (size_t plane = 0, from = 0; plane < 3; ++plane) {
        const size_t columns = plane ? chromaWidth : width, rows = plane ? chromaHeight : height;
        for (size_t y = 0; y < (plane ? 49 : 98); ++y)
            for (size_t x = 0; x < (plane ? 87 : 174); ++x)
                expected.push_back(picture.at(from + y * columns + x));
        from += rows * columns;
    }
    EXPECT_GT(psnr(decoded.i420, expected, expected.size()), 40);
}

TEST(EngineFFmpegEncoder, ConfiguresTheEncoderForLowDelay) {
    VideoEncoder encoder;
    EXPECT_EQ(openWith(encoder, 176, 144, 60, 100000), "avcodec_open2: 176  : 144 : 60 : 100000\nAVC encoder "
                                                       "codec opened\nAVC encoder Y: 192  U: 96 V: 96 \n");
    const AVCodecContext& context = *encoder.context;
    EXPECT_EQ(context.time_base.num, 1);
    EXPECT_EQ(context.time_base.den, 60);
    EXPECT_EQ(context.gop_size, 120);
    EXPECT_EQ(context.max_b_frames, 0);
    EXPECT_EQ(context.bit_rate, 100000);
    EXPECT_EQ(context.flags & AV_CODEC_FLAG_GLOBAL_HEADER, 0);
}

TEST(EngineFFmpegEncoder, ImpossibleParametersYieldNothing) {
    const int cases[][4] = {
        {0, 0, 15, 256000},        {-16, 16, 15, 256000},        {INT_MAX, INT_MAX, 15, 1},
        {INT_MIN, 16, 15, 256000}, {176, 144, -5, 256000},       {176, 144, INT_MIN, 1},
        {8, 8, 15, 256000},        {176, 144, INT_MAX, INT_MAX}, {176, 144, 15, INT_MIN}};
    for (const auto& [width, height, frameRate, bitRate] : cases) {
        SCOPED_TRACE(testing::Message() << width << "x" << height << " " << frameRate << " " << bitRate);
        VideoEncoder encoder;
        const std::string printed = openWith(encoder, width, height, frameRate, bitRate);
        Bytes data = noise(176 * 144 * 3 / 2);
        const Bytes before = data;
        int result = 0;
        const std::string complaint = printedBy([&] { result = encode(encoder, data, 0); });
        if (encoder.status != 0) {
            EXPECT_NE(printed.find("AVC encoder codec not opened -"), std::string::npos);
            EXPECT_EQ(complaint, "");
        }
        if (width == 8) {
            EXPECT_EQ(complaint, "AVC encoder failed to encode frame\n");
        }
        EXPECT_TRUE(width > 0 || encoder.status == 1);
        EXPECT_EQ(result == 1, data != before);
    }
}

TEST(EngineFFmpegEncoder, NeitherReadsNorWritesPastTheCallersBuffer) {
    VideoEncoder encoder;
    openWith(encoder, 16, 16, 15, 10000000);
    ASSERT_EQ(encoder.status, 0);
    Bytes data = noise(16 * 16 * 3 / 2 - 1);
    const Bytes before = data;
    EXPECT_EQ(encode(encoder, data, 0), 0);
    EXPECT_EQ(data, before);
    // The access unit of noise is longer than the picture.
    Bytes picture = noise(16 * 16 * 3 / 2);
    Bytes roomy = picture;
    roomy.resize(2000);
    ASSERT_EQ(encode(encoder, roomy, 7), 1);
    ASSERT_GT(encoder.encodedSize, 16 * 16 * 3 / 2);
    VideoEncoder another;
    openWith(another, 16, 16, 15, 10000000);
    const Bytes original = picture;
    EXPECT_EQ(printedBy([&] { EXPECT_EQ(encode(another, picture, 0), 0); }),
              "AVC encoder failed to encode frame\n");
    EXPECT_EQ(picture, original);
    EXPECT_EQ(another.encodedSize, 0);
}

TEST(FFmpegEncoder, LimitsItsParametersAndFillsItsArrays) {
    const LocalFrame references;
    JNIEnv* env = javaEnv();
    const struct {
        int frameRate, bitRate;
        const char* configured;
    } cases[] = {{0, 100000, "15 : 256000"},
                 {-5, 255999, "15 : 256000"},
                 {45, 256000, "30 : 256000"},
                 {30, 2000000, "30 : 2000000"},
                 {1, -1, "1 : 256000"}};
    for (const auto& [frameRate, bitRate, configured] : cases) {
        jlong handle = 0;
        const std::string printed =
            printedBy([&] { handle = OpenH264Encoder(open)(env, nullptr, 176, 144, frameRate, bitRate, 9); });
        EXPECT_EQ(printed.substr(0, printed.find("\nAVC")),
                  std::string("Codec init\navcodec_open2: 176  : 144 : ") + configured);
        const Picture picture = referenceDecode(accessUnits("baseline.h264")).at(0);
        jbyteArray data = javaArray(picture.i420), info = javaArray(8);
        EXPECT_EQ(OpenH264Encoder(encode)(env, nullptr, data, info, handle), 1);
        const auto size = static_cast<size_t>(reinterpret_cast<VideoEncoder*>(handle)->encodedSize);
        EXPECT_EQ(bytesOf(info),
                  (Bytes{1, 0, 0, static_cast<uint8_t>(size >> 8), static_cast<uint8_t>(size), 1, 0, 0xEE}));
        const Bytes encoded = bytesOf(data);
        EXPECT_EQ(Bytes(encoded.begin(), encoded.begin() + 4), (Bytes{0, 0, 0, 1}));
        EXPECT_TRUE(std::equal(encoded.begin() + static_cast<ptrdiff_t>(size), encoded.end(),
                               picture.i420.begin() + static_cast<ptrdiff_t>(size)));
        EXPECT_EQ(printedBy([&] { OpenH264Encoder(close)(env, nullptr, handle); }),
                  "AVC encoder codec closed\n");
    }
    jlong handle = 0;
    printedBy([&] { handle = OpenH264Encoder(open)(env, nullptr, 176, 144, 15, 0, 0); });
    jbyteArray data = javaArray(176 * 144 * 3 / 2), info = javaArray(7);
    EXPECT_EQ(printedBy([&] {
                  EXPECT_EQ(OpenH264Encoder(encode)(env, nullptr, nullptr, info, handle), 0);
                  EXPECT_EQ(OpenH264Encoder(encode)(env, nullptr, data, nullptr, handle), 0);
                  EXPECT_EQ(OpenH264Encoder(encode)(env, nullptr, data, info, 0), 0);
                  EXPECT_EQ(OpenH264Encoder(encode)(env, nullptr, javaArray(100), info, handle), 0);
                  OpenH264Encoder(close)(env, nullptr, 0);
              }),
              "");
    EXPECT_EQ(bytesOf(info), Bytes(7, 0xEE));
    EXPECT_EQ(OpenH264Encoder(encode)(env, nullptr, data, javaArray(6), handle), 1);
    EXPECT_EQ(takeException(), "java.lang.ArrayIndexOutOfBoundsException");
    EXPECT_NE(bytesOf(data), Bytes(176 * 144 * 3 / 2, 0xEE));
    printedBy([&] { OpenH264Encoder(close)(env, nullptr, handle); });

    printedBy([&] { handle = OpenH264Encoder(open)(env, nullptr, 0, 0, 15, 0, 0); });
    EXPECT_GT(handle, 0) << "an encoder that does not open has a handle, too";
    EXPECT_EQ(OpenH264Encoder(encode)(env, nullptr, data, info, handle), 0);
    printedBy([&] { OpenH264Encoder(close)(env, nullptr, handle); });
}
