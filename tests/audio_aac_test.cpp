#include "audio/AACDecoder.h"
#include "audio/AACEncoder.h"
#include "com_kelvane_media_transform_codec_AACDecoder.h"
#include "com_kelvane_media_transform_codec_AACEncoder.h"
#include "support/JavaMachine.h"
#include "support/Output.h"
#include "support/Sound.h"

#include <gtest/gtest.h>

#define AACDecoder(name) Java_com_kelvane_media_transform_codec_AACDecoder_##name
#define AACEncoder(name) Java_com_kelvane_media_transform_codec_AACEncoder_##name

namespace {

constexpr const char* outOfBounds = "java.lang.ArrayIndexOutOfBoundsException";

jlong openDecoder(const Bytes& config) {
    jlong handle = 0;
    printedBy([&] { handle = AACDecoder(open)(javaEnv(), nullptr, javaArray(config)); });
    return handle;
}

int decode(jlong handle, const Bytes& unit, jbyteArray info, jbyteArray output) {
    return AACDecoder(decode)(javaEnv(), nullptr, javaArray(unit), info, output, handle);
}

void closeDecoder(jlong handle) {
    printedBy([&] { AACDecoder(close)(javaEnv(), nullptr, handle); });
}

jlong openEncoder(int channels, int sampleRate) {
    jlong handle = 0;
    printedBy([&] { handle = AACEncoder(open)(javaEnv(), nullptr, channels, sampleRate); });
    return handle;
}

// The access units that Java gets for these blocks, empty ones included.
std::vector<Bytes> encodeAll(jlong handle, const std::vector<Bytes>& blocks) {
    std::vector<Bytes> units;
    printedBy([&] {
        for (const Bytes& block : blocks) {
            const LocalFrame references;
            jbyteArray info = javaArray(6), output = javaArray(4096);
            const int size = AACEncoder(encode)(javaEnv(), nullptr, javaArray(block), info, output, handle);
            Bytes unit = bytesOf(output);
            if (size == 0) {
                EXPECT_EQ(unit, Bytes(4096, 0xEE));
                EXPECT_EQ(bytesOf(info), Bytes(6, 0xEE));
            } else {
                EXPECT_EQ(bytesOf(info),
                          (Bytes{1, 0, 0, static_cast<uint8_t>(size >> 8), static_cast<uint8_t>(size), 0}));
            }
            unit.resize(static_cast<size_t>(size));
            units.push_back(unit);
        }
        AACEncoder(close)(javaEnv(), nullptr, handle);
    });
    return units;
}

} // namespace

TEST(AACDecoder, SamplesEqualFFmpegsOwn) {
    const struct {
        const char* vector;
        int sampleRate, channels;
    } cases[] = {{"stereo.m4a", 44100, 2}, {"mono.m4a", 48000, 1}};
    for (const auto& [vector, sampleRate, channels] : cases) {
        SCOPED_TRACE(vector);
        const SoundStream stream = soundStream(vector);
        const std::vector<Samples> expected = referenceSound(AV_CODEC_ID_AAC, stream, sampleRate, channels);
        const jlong handle = openDecoder(stream.config);
        for (size_t i = 0; i < stream.packets.size(); ++i) {
            const LocalFrame references;
            jbyteArray info = javaArray(5), output = javaArray(channels * 2048);
            ASSERT_EQ(decode(handle, stream.packets[i], info, output), 1024);
            EXPECT_EQ(bytesOf(info), (Bytes{1, 0, 0, 4, 0}));
            EXPECT_LE(largestDifference(samplesOf(bytesOf(output)), expected[i]), 1) << "access unit " << i;
        }
        closeDecoder(handle);
    }
}

TEST(AACDecoder, PrintsWhatHappensToIt) {
    const LocalFrame references;
    const SoundStream stream = soundStream("stereo.m4a");
    jlong handle = 0;
    EXPECT_EQ(printedBy([&] {
                  handle = AACDecoder(open)(javaEnv(), nullptr, javaArray(Bytes{0x12, 0x10}));
              }),
              "resampler init, 0\nprofile, 2\nhz_index, 4\nchannels, 2\ncodec opened\n");
    const auto& engine = *reinterpret_cast<AudioDecoder*>(handle);
    EXPECT_EQ(engine.handle, handle);
    EXPECT_EQ(engine.sampleRate, 44100u);
    for (const int wrong : {4095, 4097, 0}) {
        jbyteArray info = javaArray(5), output = javaArray(wrong);
        EXPECT_EQ(printedBy([&] { EXPECT_EQ(decode(handle, stream.packets[0], info, output), -4096); }),
                  "AACDecoder warning, output buffer is too small. required= 4096\n");
        EXPECT_EQ(bytesOf(output), Bytes(static_cast<size_t>(wrong), 0xEE));
        EXPECT_EQ(bytesOf(info), Bytes(5, 0xEE));
    }
    EXPECT_EQ(printedBy([&] { AACDecoder(close)(javaEnv(), nullptr, handle); }),
              "AAC decoder codec closed\n");
    EXPECT_EQ(printedBy([&] { AACDecoder(close)(javaEnv(), nullptr, 0); }), "");
}

TEST(AACDecoder, RefusesConfigurationsItCannotHold) {
    const auto open = [](const Bytes& config) {
        return AACDecoder(open)(javaEnv(), nullptr, javaArray(config));
    };
    const LocalFrame references;
    EXPECT_EQ(printedBy([&] { EXPECT_EQ(open({0x12}), -1); }),
              "AACDecoder warning, specific config too small  1\n");
    EXPECT_EQ(printedBy([&] { EXPECT_EQ(open({}), -1); }),
              "AACDecoder warning, specific config too small  0\n");
    Bytes config(33);
    config[0] = 0x12, config[1] = 0x10;
    EXPECT_EQ(printedBy([&] { EXPECT_EQ(open(config), -1); }, 2),
              "AAC decoder: a configuration of 33 bytes is too long\n");
    EXPECT_EQ(printedBy(
                  [&] {
                      EXPECT_EQ(open({0x16, 0x90}), -1);
                  },
                  2),
              "AAC decoder: sampling frequency index 13 is not supported\n");
    EXPECT_EQ(printedBy(
                  [&] {
                      EXPECT_EQ(open({0x17, 0x90}), -1);
                  },
                  2),
              "AAC decoder: sampling frequency index 15 is not supported\n");
    EXPECT_EQ(AACDecoder(open)(javaEnv(), nullptr, nullptr), 0);
    config.pop_back();
    const jlong handle = openDecoder(config);
    EXPECT_GT(handle, 0);
    closeDecoder(handle);
}

TEST(AACDecoder, DeliversNoFrameOfAnotherSize) {
    const Bytes unit = soundStream("stereo.m4a").packets.at(0); // silence before the sound
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
        const auto decodeUnit = [&] { EXPECT_EQ(decode(handle, unit, info, output), 0); };
        EXPECT_EQ(printedBy(decodeUnit), expected);
        EXPECT_EQ(printedBy(decodeUnit), expected);
        EXPECT_EQ(bytesOf(info), Bytes(5, 0xEE));
        closeDecoder(handle);
    }
}

TEST(AACDecoder, KeepsDecodingAfterWrongInput) {
    const SoundStream stream = soundStream("stereo.m4a");
    const std::vector<Samples> expected = referenceSound(AV_CODEC_ID_AAC, stream, 44100, 2);
    const jlong handle = openDecoder(stream.config);
    for (size_t i = 0; i + 1 < stream.packets.size(); ++i) {
        const LocalFrame references;
        jbyteArray info = javaArray(5), output = javaArray(4096);
        EXPECT_EQ(decode(handle, {}, info, output), 0);
        EXPECT_EQ(AACDecoder(decode)(javaEnv(), nullptr, nullptr, info, output, handle), 0);
        EXPECT_EQ(AACDecoder(decode)(javaEnv(), nullptr, javaArray(1), nullptr, output, handle), 0);
        EXPECT_EQ(AACDecoder(decode)(javaEnv(), nullptr, javaArray(1), info, nullptr, handle), 0);
        EXPECT_EQ(decode(0, stream.packets[i], info, output), 0);
        EXPECT_EQ(decode(handle, Bytes(40, 0xFF), info, output), 0);
        Bytes unit = stream.packets[i];
        unit.insert(unit.end(), {0xE0, 0x5A, 0x77, 0x01, 0xC3}); // dropped, whatever it means
        EXPECT_EQ(decode(handle, unit, info, output), 1024);
        EXPECT_LE(largestDifference(samplesOf(bytesOf(output)), expected[i]), 1) << "access unit " << i;
    }
    const LocalFrame references;
    EXPECT_EQ(decode(handle, stream.packets.back(), javaArray(4), javaArray(4096)), 1024);
    EXPECT_EQ(takeException(), outOfBounds);
    closeDecoder(handle);
}

TEST(EngineAACDecoder, SurvivesCorruptAccessUnits) {
    const SoundStream stream = soundStream("stereo.m4a");
    AudioDecoder decoder;
    uint32_t random = 1;
    const auto next = [&](size_t range) { return (random = random * 1664525 + 1013904223) % range; };
    int decoded = 0;
    printedBy(
        [&] {
            std::copy(stream.config.begin(), stream.config.end(), decoder.config);
            decoder.configSize = static_cast<uint8_t>(stream.config.size());
            decoder.open();
            for (int round = 0; round < 40; ++round)
                for (Bytes unit : stream.packets) {
                    const size_t size = 1 + next(unit.size());
                    unit.resize(size);
                    for (int flips = 0; flips < 3; ++flips)
                        unit[next(size)] ^= static_cast<uint8_t>(1 << next(8));
                    unit.resize(size + AV_INPUT_BUFFER_PADDING_SIZE);
                    decoded += decoder.decode(unit.data(), static_cast<int>(size)) > 0;
                }
            decoder.close();
            decoder.close();
        },
        2);
    EXPECT_GT(decoded, 0) << "some of the wrecks are to get as far as the resampler";
}

TEST(AACEncoder, SoundComesBackChannelByChannel) {
    for (const int channels : {1, 2}) {
        const Samples sound = testSound(channels, 44100, 40 * 1024);
        std::vector<Bytes> blocks;
        for (size_t i = 0; i < 40; ++i)
            blocks.push_back(pcmBlock(sound, i, 1024 * static_cast<size_t>(channels)));
        const jlong handle = openEncoder(channels, 44100);
        const AVCodecContext& context = *reinterpret_cast<AudioEncoder*>(handle)->context;
        EXPECT_EQ(context.profile, FF_PROFILE_AAC_LOW);
        SoundStream stream{Bytes(context.extradata, context.extradata + context.extradata_size), {}};
        stream.packets = encodeAll(handle, blocks);
        EXPECT_TRUE(stream.packets.at(0).empty());
        stream.packets.erase(stream.packets.begin());
        size_t bytes = 0;
        Samples decoded;
        for (const Samples& samples : referenceSound(AV_CODEC_ID_AAC, stream, 44100, channels))
            decoded.insert(decoded.end(), samples.begin(), samples.end());
        for (const Bytes& unit : stream.packets)
            bytes += unit.size();
        EXPECT_NEAR(static_cast<double>(bytes * 8) * 44100 / (39 * 1024), 64000, 6400);
        for (size_t channel = 0; channel < static_cast<size_t>(channels); ++channel)
            EXPECT_GT(snr(sound, decoded, static_cast<size_t>(channels), channel, 1024), 25);
    }
}

TEST(AACEncoder, TakesWholeBlocksOnly) {
    const Samples sound = testSound(2, 48000, 8 * 1024);
    std::vector<Bytes> plain, odd;
    for (size_t i = 0; i < 8; ++i) {
        plain.push_back(pcmBlock(sound, i, 2048));
        odd.push_back(plain.back());
        odd.back().resize(4095);
        odd.push_back(plain.back());
        odd.back().resize(5000, 0x55);
    }
    std::vector<Bytes> expected = encodeAll(openEncoder(2, 48000), plain);
    const std::vector<Bytes> units = encodeAll(openEncoder(2, 48000), odd);
    for (size_t i = 0; i < 8; ++i) {
        EXPECT_TRUE(units[2 * i].empty());
        EXPECT_EQ(units[2 * i + 1], expected[i]);
    }
}

TEST(AACEncoder, PrintsWhatHappensToIt) {
    const LocalFrame references;
    JNIEnv* env = javaEnv();
    const struct {
        int channels, clamped, sampleRate;
        const char *codec, *firstBlock;
        int later; // the sign of the results after the first one
    } cases[] = {{0, 1, 48000, "codec opened\n", "malloc 2048 init\n", 1},
                 {6, 2, 48000, "codec opened\n", "malloc 4096 init\n", 1},
                 {2, 2, 44000, "codec not opened\n", "malloc 4096 init\n", 0}};
    for (const auto& [channels, clamped, sampleRate, codec, firstBlock, later] : cases) {
        jlong handle = 0;
        EXPECT_EQ(printedBy([&] { handle = AACEncoder(open)(env, nullptr, channels, sampleRate); }),
                  std::string("Codec init\n") + codec + "AAC encoder codec opened\n");
        jbyteArray pcm = javaArray(clamped * 2048, 0), info = javaArray(6), output = javaArray(4096);
        const auto encode = [&](jbyteArray in, jbyteArray about, jbyteArray out) {
            return AACEncoder(encode)(env, nullptr, in, about, out, handle);
        };
        EXPECT_EQ(printedBy([&] { EXPECT_EQ(encode(pcm, info, output), 0); }), firstBlock);
        EXPECT_EQ(printedBy([&] {
                      EXPECT_EQ(encode(nullptr, info, output), 0);
                      EXPECT_EQ(encode(pcm, nullptr, output), 0);
                      EXPECT_EQ(encode(pcm, info, nullptr), 0);
                      EXPECT_EQ(encode(pcm, info, output) > 0, later);
                      encode(pcm, info, javaArray(1));
                      EXPECT_EQ(takeException(), later ? outOfBounds : "");
                      encode(pcm, javaArray(5), output);
                      EXPECT_EQ(takeException(), later ? outOfBounds : "");
                  }),
                  "");
        EXPECT_EQ(AACEncoder(encode)(env, nullptr, pcm, info, output, 0), -1);
        EXPECT_EQ(printedBy([&] { AACEncoder(close)(env, nullptr, handle); }), "AAC encoder codec closed\n");
    }
    EXPECT_EQ(printedBy([&] { AACEncoder(close)(env, nullptr, 0); }), "");
}

TEST(EngineAACEncoder, FreesWhatItHolds) {
    const Samples block = testSound(2, 48000, 1024);
    AudioEncoder encoder;
    printedBy([&] {
        encoder.channels = 2;
        encoder.open();
        EXPECT_EQ(encoder.encode(block.data()), 0);
        EXPECT_GT(encoder.encode(block.data()), 0);
        encoder.close();
        encoder.close();
    });
    EXPECT_FALSE(encoder.context || encoder.resampler || encoder.output || encoder.frame);
}
