#include "bridge/Registries.h"
#include "com_kelvane_media_transform_codec_AVCEncoder.h"
#include "support/JavaMachine.h"
#include "support/OpenH264.h"
#include "support/Output.h"
#include "video/AVCEncoder.h"

#include <cstring>
#include <random>

#define AVCEncoder(name) Java_com_kelvane_media_transform_codec_AVCEncoder_##name

namespace {

constexpr uint32_t width = 176, height = 144;
constexpr int pictureSize = width * height * 3 / 2;

class EngineEncoder : public WithOpenH264 {
protected:
    void openQuietly() {
        encoder.width = width;
        encoder.height = height;
        encoder.bitrate = 500'000;
        printedBy([&] { encoder.open(); });
        ASSERT_EQ(encoder.status, 0);
    }
    int encode(uint32_t timestamp = 0) { return encoder.encode(picture.data(), pictureSize, timestamp); }

    NativeOpenH264Encoder encoder;
    Bytes picture = Bytes(pictureSize, 90);
};

class Encoder : public WithOpenH264 {};

} // namespace

TEST_F(EngineEncoder, GivesTheLibraryTheWholeParameterRecord) {
    const struct {
        int encMode, profile, minQp, maxQp; // both quantisers are the library's own where they are 0
        RC_MODES rateControl;
    } cases[] = {{2, 1, 0, 40, RC_QUALITY_MODE}, {0, 0, 12, 0, RC_BITRATE_MODE}};
    for (const auto& [encMode, profile, minQp, maxQp, rateControl] : cases) {
        NativeOpenH264Encoder configured;
        configured.width = width;
        configured.height = height;
        configured.fps = 25;
        configured.bitrate = 700'000;
        configured.maxBitrate = 900'000;
        configured.encMode = encMode;
        configured.profile = profile;
        configured.minQp = minQp;
        configured.maxQp = maxQp;
        configured.keyInterval = 50;
        configured.debug = 1;
        // The loader's own line depends on the tests before this one.
        std::string printed = printedBy([&] { configured.open(); });
        printed.erase(0, printed.find("qp "));
        SEncParamExt expected{};
        std::memcpy(&expected, &library.defaults, sizeof expected);
        if (minQp) expected.iMinQp = minQp;
        if (maxQp) expected.iMaxQp = maxQp;
        EXPECT_EQ(printed, "qp  " + std::to_string(expected.iMinQp) + " -" + std::to_string(expected.iMaxQp) +
                               " \nopened and configured h264 encoder.\n");
        EXPECT_EQ(configured.minQp, expected.iMinQp);
        EXPECT_EQ(configured.maxQp, expected.iMaxQp);
        EXPECT_EQ(configured.status, 0);

        setAsConfigured(expected, configured);
        EXPECT_EQ((std::tuple(expected.iRCMode, expected.fMaxFrameRate, expected.uiIntraPeriod)),
                  (std::tuple(rateControl, 25.0F, 50u)));
        EXPECT_EQ(std::memcmp(&library.param, &expected, sizeof expected), 0);
    }
    EXPECT_EQ(library.otherCalls, 0);
}

TEST_F(EngineEncoder, ClampsFrameRateThenKeyInterval) {
    const struct {
        uint32_t fps, keyInterval, usedFps, usedKeyInterval;
    } cases[] = {{0, 0, 30, 120},  {61, 480, 30, 480}, {60, 0, 60, 240},       {25, 481, 25, 200},
                 {25, 0, 25, 100}, {0, 500, 30, 240},  {0xFFFFFFFB, 1, 30, 1}, {1, 0xFFFFFFFF, 1, 8}};
    for (const auto& [fps, keyInterval, usedFps, usedKeyInterval] : cases) {
        NativeOpenH264Encoder clamped;
        clamped.width = width;
        clamped.height = height;
        clamped.bitrate = 500'000;
        clamped.fps = fps;
        clamped.keyInterval = keyInterval;
        printedBy([&] { clamped.open(); });
        EXPECT_EQ(clamped.fps, usedFps);
        EXPECT_EQ(clamped.keyInterval, usedKeyInterval);
        EXPECT_EQ(library.param.fMaxFrameRate, static_cast<float>(usedFps));
        EXPECT_EQ(library.param.uiIntraPeriod, usedKeyInterval);
    }
}

TEST_F(EngineEncoder, DropsTheOutputBeforeEachPictureAndSaysWhy) {
    openQuietly();
    encoder.debug = 1;
    const auto expectNothing = [&](const char* printed) {
        EXPECT_EQ(printedBy([&] { EXPECT_EQ(encode(), 0); }), printed);
        EXPECT_FALSE(encoder.output);
        EXPECT_EQ(encoder.outputSize, 0);
        library.failToEncode = library.skipPictures = false;
    };
    const std::string first = printedBy([&] { EXPECT_EQ(encode(), 1); });
    EXPECT_EQ(first, "output_size: " + std::to_string(encoder.outputSize) + " count: 1\n");
    ASSERT_GT(encoder.outputSize, 0);
    library.failToEncode = true;
    expectNothing("error \n");
    library.skipPictures = true;
    expectNothing("skip\n");

    EXPECT_EQ(encode(0xFFFFFFFF), 1);
    EXPECT_EQ(library.timestamps.back(), 4294967295);
    picture.pop_back();
    picture.shrink_to_fit(); // a read past its end is seen by AddressSanitizer
    const std::string refused =
        printedBy([&] { EXPECT_EQ(encoder.encode(picture.data(), pictureSize - 1, 0), 0); });
    EXPECT_EQ(refused, "err size_in 38016  38015\n");
    EXPECT_FALSE(encoder.output);
    picture.resize(pictureSize + 7);
    const std::string longer =
        printedBy([&] { EXPECT_EQ(encoder.encode(picture.data(), pictureSize + 7, 0), 1); });
    EXPECT_EQ(longer.find("err size_in 38016  38023\noutput_size: "), 0u);
    EXPECT_EQ(encoder.frameCount, 3u);

    encoder.close();
    EXPECT_EQ(encode(), 0);
    EXPECT_EQ(printedBy([&] { encoder.close(); }), "");
    EXPECT_EQ(library.destroyed, 1);
    EXPECT_EQ(library.otherCalls, 0);
}

TEST_F(EngineEncoder, SurvivesALibraryThatRefuses) {
    encoder.width = width;
    encoder.height = height;
    library.refuseToCreate = true;
    EXPECT_NE(printedBy([&] { encoder.open(); }).find("could not open noh264\n"), std::string::npos);
    EXPECT_EQ(encoder.status, 1);
    EXPECT_EQ(encode(), 0);

    library.refuseToCreate = false;
    library.refuseParameters = true;
    encoder.debug = 1;
    EXPECT_NE(printedBy([&] { encoder.open(); }).find("could not configure noh264 codec.\n"),
              std::string::npos);
    EXPECT_EQ(encoder.status, -1);
    EXPECT_EQ(printedBy([&] { EXPECT_EQ(encode(), 0); }), "error \n");

    // width x height x 3 / 2 wraps to a size that the picture has
    encoder.width = encoder.height = 65'536;
    EXPECT_EQ(printedBy([&] { EXPECT_EQ(encode(), 0); }), "err size_in 0  38016\n");
}

TEST_F(EngineEncoder, NoiseWithCabacIsAFailureAndNoOverrun) {
    const struct {
        uint32_t width, height;
        int encMode, minQp, maxQp;
        bool twoValued, fits;
    } cases[] = {{16, 16, 0, 1, 1, true, true}, // the buffer has room for two macroblocks more
                 {160, 128, 0, 0, 0, true, false},
                 {322, 182, 1, 0, 0, true, false},
                 {320, 176, 0, 1, 1, false, false},
                 {640, 360, 1, 12, 20, true, false}};
    for (const auto& [columns, rows, encMode, minQp, maxQp, twoValued, fits] : cases) {
        SCOPED_TRACE(columns);
        NativeOpenH264Encoder noisy;
        noisy.width = columns;
        noisy.height = rows;
        noisy.bitrate = 800'000;
        noisy.encMode = encMode;
        noisy.profile = 1;
        noisy.minQp = minQp;
        noisy.maxQp = maxQp;
        printedBy([&] { noisy.open(); });
        const auto encodes = [&](Bytes samples) {
            return noisy.encode(samples.data(), static_cast<int>(samples.size()), 0) == 1;
        };
        const Bytes grey(columns * rows * 3 / 2, 128);
        Bytes noise = grey;
        std::mt19937 random(columns);
        for (uint8_t& sample : noise)
            sample = static_cast<uint8_t>(twoValued ? random() % 2 * 255 : random() % 256);
        for (int i = 0; i < 10; ++i) // to the finest quantiser
            EXPECT_TRUE(encodes(grey));
        EXPECT_EQ(encodes(noise), fits);
        EXPECT_EQ(noisy.failure, fits ? 0 : 3);
        EXPECT_TRUE(noisy.renew());
        EXPECT_TRUE(encodes(grey));
    }
}

TEST_F(EngineEncoder, CabacNeedsRoomBehindTheBuffers) {
    library.initializesElsewhere = true;
    encoder.profile = 1;
    encoder.width = width;
    encoder.height = height;
    encoder.bitrate = 500'000;
    printedBy([&] { encoder.open(); });
    EXPECT_EQ(encoder.status, -1);
    EXPECT_EQ(encode(), 0);

    library.initializesElsewhere = false;
    EXPECT_TRUE(encoder.renew());
    EXPECT_EQ(encode(), 1);
}

TEST_F(Encoder, JavaMethodsKeepTheBytesInTheEngine) {
    const LocalFrame references;
    JNIEnv* env = javaEnv();
    const auto expectEncoder = [&] {
        const jlong handle = AVCEncoder(open)(env, nullptr, 176, 144, -1, 0, 500'000);
        const auto& encoder = *reinterpret_cast<NativeOpenH264Encoder*>(handle);
        EXPECT_EQ(encoder.handle, handle);
        EXPECT_EQ((std::tuple(encoder.status, encoder.fps, encoder.keyInterval, encoder.maxBitrate)),
                  (std::tuple(0, 30u, 120u, 300)));
        EXPECT_EQ(
            (std::tuple(library.param.iPicWidth, library.param.iPicHeight, library.param.iTargetBitrate)),
            (std::tuple(176, 144, 500'000)));
        EXPECT_EQ(AVCEncoder(encode)(env, nullptr, javaArray(pictureSize), nullptr, handle), 0);
        EXPECT_GT(encoder.outputSize, 0);
        EXPECT_EQ(library.timestamps, std::vector<long long>{0});
        EXPECT_EQ(AVCEncoder(encode)(env, nullptr, nullptr, nullptr, handle), 0);
        EXPECT_GT(encoder.outputSize, 0) << "null touches nothing";
        EXPECT_EQ(AVCEncoder(encode)(env, nullptr, javaArray(0), nullptr, handle), 0);
        EXPECT_FALSE(encoder.output);
        EXPECT_EQ(AVCEncoder(loadLibrary)(env, nullptr, javaString("none")), 1);
        AVCEncoder(close)(env, nullptr, handle);
        EXPECT_EQ(library.created, library.destroyed);
    };
    const std::string printed = printedBy(expectEncoder);
    EXPECT_TRUE(printed.ends_with("pointers pre loaded\nAVC encoder codec closed\n")) << printed;
}
