#include "audio/AACDecoder.h"
#include "audio/AACEncoder.h"
#include "com_kelvane_media_transform_codec_AACDecoder.h"
#include "com_kelvane_media_transform_codec_AACEncoder.h"
#include "support/Output.h"
#include "support/Sound.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <random>
#include <utility>

#define AACDecoder(name) Java_com_kelvane_media_transform_codec_AACDecoder_##name
#define AACEncoder(name) Java_com_kelvane_media_transform_codec_AACEncoder_##name

namespace {

constexpr const char* outOfBounds = "java.lang.ArrayIndexOutOfBoundsException";

jlong openDecoder(const Bytes& config) { return AACDecoder(open)(javaEnv(), nullptr, javaArray(config)); }

int decode(jlong handle, const Bytes& unit, jbyteArray info, jbyteArray output) {
    return AACDecoder(decode)(javaEnv(), nullptr, javaArray(unit), info, output, handle);
}

int encode(jlong handle, const Bytes& block, jbyteArray info, jbyteArray output) {
    return AACEncoder(encode)(javaEnv(), nullptr, javaArray(block), info, output, handle);
}

} // namespace

TEST(AACDecoder, SamplesEqualFFmpegsOwn) {
    for (const int channels : {1, 2}) {
        const Script stream = streamOf(channels == 1 ? "mono.m4a" : "stereo.m4a");
        Bytes config = stream.config;
        config.resize(32); // the longest that it takes
        const jlong handle = openDecoder(config);
        const int difference = comparedWithFFmpeg(AV_CODEC_ID_AAC, AACDecoder(decode), handle, stream,
                                                  channels == 1 ? 48000 : 44100, channels);
        EXPECT_LE(difference, 1);
        AACDecoder(close)(javaEnv(), nullptr, handle);
    }
}

TEST(AACDecoder, TellsWhatHappensToIt) {
    const LocalFrame references;
    EXPECT_EQ(printedBy([&] { EXPECT_EQ(openDecoder({0x12}), -1); }),
              "AACDecoder warning, specific config too small  1\n");
    EXPECT_EQ(printedBy([&] { EXPECT_EQ(openDecoder(Bytes(33, 0x12)), -1); }, 2),
              "AAC decoder: a configuration of 33 bytes is too long\n");
    const Bytes index13{0x16, 0x90};
    EXPECT_EQ(printedBy([&] { EXPECT_EQ(openDecoder(index13), -1); }, 2),
              "AAC decoder: sampling frequency index 13 is not supported\n");
    const Script stream = streamOf("stereo.m4a");
    jlong handle = 0;
    EXPECT_EQ(printedBy([&] { handle = openDecoder(stream.config); }),
              "resampler init, 0\nprofile, 2\nhz_index, 4\nchannels, 2\ncodec opened\n");
    for (const int size : {4095, 4097}) {
        jbyteArray info = javaArray(5), output = javaArray(size);
        EXPECT_EQ(printedBy([&] { EXPECT_EQ(decode(handle, stream.calls[0], info, output), -4096); }),
                  "AACDecoder warning, output buffer is too small. required= 4096\n");
        written(output, 0);
        written(info, 0);
    }
    EXPECT_EQ(printedBy([&] { AACDecoder(close)(javaEnv(), nullptr, handle); }),
              "AAC decoder codec closed\n");
}

TEST(AACDecoder, DeliversNoFrameOfAnotherSize) {
    const Bytes unit = streamOf("stereo.m4a").calls.at(0); // silence before the sound
    const struct {
        Bytes config;
        int outputSize;
        const char* printed;
    } cases[] = {
        {{0x12, 0x14}, 4096, "error, expected sample size did not match 3840 \n"}, // frames of 960 samples
        {{0x2B, 0x92, 0x08, 0x00}, 4096, ""}, // spectral band replication: another rate comes out
        {{0x12, 0x30}, 6 * 2048, ""},         // six channels claimed for a stereo stream
        {{0x12, 0x78}, 15 * 2048, ""},        // a channel configuration that FFmpeg does not open
    };
    for (const auto& [config, outputSize, expected] : cases) {
        const LocalFrame references;
        const jlong handle = openDecoder(config);
        ASSERT_GT(handle, 0);
        jbyteArray info = javaArray(5), output = javaArray(outputSize);
        EXPECT_EQ(printedBy([&] { EXPECT_EQ(decode(handle, unit, info, output), 0); }), expected);
        written(info, 0);
        AACDecoder(close)(javaEnv(), nullptr, handle);
    }
}

// FFmpeg takes these for band replication, or for channels, that every later frame would then have.
TEST(AACDecoder, ComesBackFromDamageInTheFirstUnit) {
    Script stream = streamOf("mono.m4a");
    stream.config.resize(2); // which leaves it open whether there is band replication
    int misled = 0;
    std::minstd_rand random;
    for (int trial = 0; trial < 700; ++trial) {
        const LocalFrame references;
        AudioDecoder decoder;
        std::copy_n(stream.config.data(), 2, decoder.config);
        decoder.configSize = 2;
        printedBy([&] { decoder.open(); });
        Bytes unit = stream.calls.at(5);
        for (auto flips = random() % 8 + 1; flips > 0; --flips)
            unit.at(random() % unit.size()) ^= static_cast<uint8_t>(1 << random() % 8);
        const auto decoded = [&](Bytes bytes) {
            const auto size = static_cast<int>(bytes.size());
            bytes.resize(bytes.size() + AV_INPUT_BUFFER_PADDING_SIZE);
            return decoder.decode(bytes.data(), size) == 1024;
        };
        decoded(unit);
        int lost = 0;
        while (lost < 10 && !decoded(stream.calls.at(static_cast<size_t>(lost) + 6)))
            ++lost;
        EXPECT_LE(lost, 4) << trial;
        misled += lost > 2;
    }
    EXPECT_GT(misled, 0) << "no trial shows anything";
}

// A stream of another kind than its configuration says is no damage, which a decoder opened anew would mend.
TEST(AACDecoder, GivesUpOnAStreamOfAnotherKind) {
    const Script mono = streamOf("mono.m4a"), stereo = streamOf("stereo.m4a");
    const struct {
        Bytes config;
        const Script& stream;
    } cases[] = {{{0x12, 0x10}, mono},                // stereo is announced
                 {{0x12, 0x14}, stereo},              // frames of 960 samples
                 {{0x2A, 0x10, 0x88, 0x00}, stereo}}; // spectral band replication
    for (const auto& [config, stream] : cases) {
        AudioDecoder decoder;
        std::copy(config.begin(), config.end(), decoder.config);
        decoder.configSize = static_cast<uint8_t>(config.size());
        printedBy([&] { decoder.open(); });
        int opened = 0, fitting = 0;
        const auto decode = [&](Bytes unit) {
            const auto size = static_cast<int>(unit.size());
            unit.resize(unit.size() + AV_INPUT_BUFFER_PADDING_SIZE);
            opened += !std::exchange(decoder.context->opaque, &decoder);
            fitting += decoder.decode(unit.data(), size) == 1024 && decoder.outputSize == 4096;
        };
        for (size_t i = 0; i < 400; ++i)
            decode(stream.calls.at(i % stream.calls.size()));
        EXPECT_EQ(fitting, 0);
        EXPECT_GT(opened, 1) << "damage might have misled it";
        EXPECT_LE(opened, 6);
        if (&stream == &stereo) continue;
        for (const Bytes& unit : stereo.calls)
            decode(unit);
        EXPECT_EQ(fitting, stereo.calls.size()) << "and goes on where the announced stream begins";
    }
}

TEST(AACEncoder, SoundComesBackChannelByChannel) {
    for (const int channels : {1, 2}) {
        const auto count = static_cast<size_t>(channels);
        const Samples sound = testSound(channels, 44100, 40 * 1024);
        const jlong handle = AACEncoder(open)(javaEnv(), nullptr, channels, 44100);
        const AVCodecContext& context = *reinterpret_cast<AudioEncoder*>(handle)->context;
        EXPECT_EQ(context.profile, FF_PROFILE_AAC_LOW);
        Script stream{{}, Bytes(context.extradata, context.extradata + context.extradata_size), {}};
        size_t bytes = 0;
        for (size_t i = 0; i < 40; ++i) {
            const LocalFrame references;
            jbyteArray info = javaArray(6), output = javaArray(4096);
            Bytes block = pcmBlock(sound, i, 1024 * count);
            EXPECT_EQ(encode(handle, Bytes(block.begin(), block.end() - 1), info, output), 0);
            block.resize(5000, 0x55); // more than a block, which is left alone
            const int size = encode(handle, block, info, output);
            const Bytes unit = written(output, size);
            const Bytes about{1, 0, 0, static_cast<uint8_t>(size >> 8), static_cast<uint8_t>(size), 0};
            EXPECT_EQ(bytesOf(info), i > 0 ? about : Bytes(6, 0xEE));
            if (i > 0) stream.calls.push_back(unit);
            bytes += unit.size();
        }
        AACEncoder(close)(javaEnv(), nullptr, handle);
        EXPECT_NEAR(static_cast<double>(bytes * 8) * 44100 / (39 * 1024), 64000, 6400);
        const Samples decoded = referenceSound(AV_CODEC_ID_AAC, stream, 44100, channels);
        for (size_t channel = 0; channel < count; ++channel)
            EXPECT_GT(snr(sound, decoded, count, channel, 1024), 25);
    }
}

TEST(AACEncoder, KeepsToTheBitRateThatIsAskedFor) {
    const Samples sound = testSound(2, 44100, 100 * 1024);
    const auto encodeAll = [&](jlong handle) {
        std::vector<Bytes> units;
        for (size_t i = 0; i < 100; ++i) {
            const LocalFrame references;
            jbyteArray output = javaArray(4096);
            const int size = encode(handle, pcmBlock(sound, i, 2048), javaArray(6), output);
            units.push_back(written(output, size));
        }
        AACEncoder(close)(javaEnv(), nullptr, handle);
        return units;
    };
    const auto openAt = [](int channels, int sampleRate, int bitrate) {
        return AACEncoder(openAt)(javaEnv(), nullptr, channels, sampleRate, bitrate);
    };
    for (const int bitrate : {24000, 64000, 160000}) {
        const std::vector<Bytes> units = encodeAll(openAt(2, 44100, bitrate));
        size_t bytes = 0;
        for (const Bytes& unit : units)
            bytes += unit.size();
        EXPECT_NEAR(static_cast<double>(bytes * 8) * 44100 / (99 * 1024), bitrate, bitrate * 0.1);
        const bool usual = units == encodeAll(AACEncoder(open)(javaEnv(), nullptr, 2, 44100));
        EXPECT_EQ(usual, bitrate == 64000);
    }
    // FFmpeg ends the process where it cleans up after a rate of 1.
    const int refused[][3] = {{2, 44100, 15999},  {2, 44100, 6 * 2 * 44100 + 1},
                              {1, 48000, 1},      {1, 8000, 0},
                              {1, 48000, -64000}, {1, INT_MIN, 64000}};
    for (const auto& [channels, sampleRate, bitrate] : refused)
        EXPECT_EQ(openAt(channels, sampleRate, bitrate), 0);
    for (const int bitrate : {16000, 6 * 2 * 44100}) {
        const jlong handle = openAt(2, 44100, bitrate);
        ASSERT_GT(handle, 0);
        AACEncoder(close)(javaEnv(), nullptr, handle);
    }
}

TEST(AACEncoder, TellsWhatHappensToIt) {
    const LocalFrame references;
    JNIEnv* env = javaEnv();
    const struct {
        int channels, sampleRate;
        const char *codec, *firstBlock;
        const char* exception; // over arrays too short for the access units, of which there may be none
    } cases[] = {{0, 48000, "codec opened\n", "malloc 2048 init\n", outOfBounds},
                 {6, 48000, "codec opened\n", "malloc 4096 init\n", outOfBounds},
                 {2, 44000, "codec not opened\n", "malloc 4096 init\n", ""}};
    const Bytes pcm(4096);
    jbyteArray info = javaArray(6), output = javaArray(4096);
    for (const auto& [channels, sampleRate, codec, firstBlock, exception] : cases) {
        jlong handle = 0;
        EXPECT_EQ(printedBy([&] { handle = AACEncoder(open)(env, nullptr, channels, sampleRate); }),
                  std::string("Codec init\n") + codec + "AAC encoder codec opened\n");
        EXPECT_EQ(printedBy([&] { EXPECT_EQ(encode(handle, pcm, info, output), 0); }), firstBlock);
        EXPECT_EQ(encode(handle, pcm, info, output) > 0, *exception != 0);
        EXPECT_EQ(printedBy([&] { encode(handle, pcm, info, javaArray(1)); }), "");
        EXPECT_EQ(takeException(), exception);
        encode(handle, pcm, javaArray(5), output);
        EXPECT_EQ(takeException(), exception);
        EXPECT_EQ(printedBy([&] { AACEncoder(close)(env, nullptr, handle); }), "AAC encoder codec closed\n");
    }
}
