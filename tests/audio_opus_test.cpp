#include "audio/NOpusDecoder.h"
#include "audio/NOpusEncoder.h"
#include "com_kelvane_media_transform_codec_NOpusDecoder.h"
#include "com_kelvane_media_transform_codec_NOpusEncoder.h"
#include "support/JavaMachine.h"
#include "support/Output.h"
#include "support/Sound.h"

#include <gtest/gtest.h>

#include <climits>
#include <cmath>

#define Decoder(name) Java_com_kelvane_media_transform_codec_NOpusDecoder_##name
#define Encoder(name) Java_com_kelvane_media_transform_codec_NOpusEncoder_##name

namespace {

constexpr int longestPcm = 5760 * 2 * 2;

jlong openDecoder(int channels, int fec) {
    jlong handle = 0;
    printedBy([&] { handle = Decoder(open)(javaEnv(), nullptr, channels, fec); });
    return handle;
}

int decode(jlong handle, const Bytes& packet, jbyteArray output) {
    return Decoder(decode)(javaEnv(), nullptr, javaArray(packet), output, handle);
}

// The samples of each packet as Java gets them.
std::vector<Samples> decodeAll(int channels, int fec, const std::vector<Bytes>& packets) {
    std::vector<Samples> decoded;
    printedBy([&] {
        const jlong handle = openDecoder(channels, fec);
        for (const Bytes& packet : packets) {
            const LocalFrame references;
            jbyteArray output = javaArray(longestPcm);
            const int samples = decode(handle, packet, output);
            EXPECT_GT(samples, 0);
            Bytes pcm = bytesOf(output);
            const auto end = pcm.begin() + samples * channels * 2;
            EXPECT_EQ(Bytes(end, pcm.end()), Bytes(static_cast<size_t>(pcm.end() - end), 0xEE));
            pcm.erase(end, pcm.end());
            decoded.push_back(samplesOf(pcm));
        }
        Decoder(close)(javaEnv(), nullptr, handle);
    });
    return decoded;
}

jlong openEncoder(int channels, int bitrate, int frameDuration) {
    jlong handle = 0;
    printedBy([&] {
        printedBy([&] { handle = Encoder(open)(javaEnv(), nullptr, channels, bitrate, frameDuration); }, 2);
    });
    return handle;
}

int encode(jlong handle, const Bytes& pcm, jbyteArray output) {
    return Encoder(encode)(javaEnv(), nullptr, javaArray(pcm), output, handle);
}

std::vector<Bytes> encodeAll(jlong handle, const std::vector<Bytes>& frames) {
    std::vector<Bytes> packets;
    printedBy([&] {
        for (const Bytes& frame : frames) {
            const LocalFrame references;
            jbyteArray output = javaArray(3828);
            const int size = encode(handle, frame, output);
            Bytes packet = bytesOf(output);
            if (size == 0) {
                EXPECT_EQ(packet, Bytes(3828, 0xEE));
            }
            packet.resize(static_cast<size_t>(size));
            packets.push_back(packet);
        }
        Encoder(close)(javaEnv(), nullptr, handle);
    });
    return packets;
}

std::vector<Bytes> testFrames(int channels, size_t count) {
    const auto frameSize = static_cast<size_t>(960 * channels);
    const Samples sound = testSound(channels, 48000, static_cast<int>(960 * count));
    std::vector<Bytes> frames;
    for (size_t i = 0; i < count; ++i)
        frames.push_back(pcmBlock(sound, i, frameSize));
    return frames;
}

Samples joined(const std::vector<Samples>& parts) {
    Samples all;
    for (const Samples& part : parts)
        all.insert(all.end(), part.begin(), part.end());
    return all;
}

opus_int32 setting(jlong encoder, int request) {
    opus_int32 value = INT_MIN;
    EXPECT_EQ(opus_encoder_ctl(reinterpret_cast<NOpusEncoder*>(encoder)->encoder.get(), request, &value),
              OPUS_OK);
    return value;
}

} // namespace

TEST(Opus, SoundComesBackChannelByChannel) {
    constexpr size_t lookahead = 312; // samples that the encoder lags behind
    for (const size_t channels : {1u, 2u}) {
        const int count = static_cast<int>(channels);
        const std::vector<Bytes> packets =
            encodeAll(openEncoder(count, count * 64000, 20), testFrames(count, 50));
        for (const Bytes& packet : packets)
            EXPECT_EQ(packet.size(), channels * 160) << "a constant bit rate";
        const Samples sound = testSound(count, 48000, 50 * 960);
        const Samples decoded = joined(decodeAll(count, 0, packets));
        for (size_t channel = 0; channel < channels; ++channel)
            EXPECT_GT(snr(sound, decoded, channels, channel, lookahead), 20);
        if (channels == 1) continue;
        const Samples left = joined(decodeAll(1, 0, packets));
        ASSERT_EQ(left.size() * 2, decoded.size());
        for (size_t i = 0; i < left.size(); ++i)
            ASSERT_EQ(left[i], decoded[2 * i]);
    }
}

TEST(OpusDecoder, PrintsWhatHappensToIt) {
    const LocalFrame references;
    JNIEnv* env = javaEnv();
    const Bytes packet = soundStream("fec.opus").packets.at(0);
    for (const int channels : {1, 2}) {
        const std::string out = std::to_string(channels);
        const int size = channels * 960 * 2;
        jlong handle = 0;
        EXPECT_EQ(printedBy([&] { handle = Decoder(open)(env, nullptr, channels, 0); }),
                  "Opus decoder - channels in: 2 out: " + out +
                      "\nOpus decoder opened\nOpus decoder codec opened\n");
        EXPECT_EQ(reinterpret_cast<NOpusDecoder*>(handle)->handle, handle);
        EXPECT_EQ(printedBy([&] { EXPECT_EQ(decode(handle, packet, javaArray(size)), 960); }),
                  "malloc " + std::to_string(size) + " init\n");
        EXPECT_EQ(printedBy([&] { EXPECT_EQ(decode(handle, {}, javaArray(longestPcm)), 5760); }), "");
        jbyteArray output = javaArray(size - 1);
        EXPECT_EQ(printedBy([&] { EXPECT_EQ(decode(handle, packet, output), -size); }),
                  "error, expected sample size did not match " + std::to_string(size) + "\n");
        EXPECT_EQ(bytesOf(output), Bytes(static_cast<size_t>(size - 1), 0xEE));
        EXPECT_EQ(printedBy([&] { EXPECT_EQ(decode(handle, Bytes(3, 0xFF), output), 0); }, 2),
                  "decoder failed: corrupted stream\n");
        EXPECT_EQ(printedBy([&] { EXPECT_EQ(decode(handle, packet, javaArray(size)), 960); }), "");
        EXPECT_EQ(Decoder(decode)(env, nullptr, nullptr, output, handle), 0);
        EXPECT_EQ(Decoder(decode)(env, nullptr, javaArray(packet), nullptr, handle), 0);
        EXPECT_EQ(printedBy([&] { Decoder(close)(env, nullptr, handle); }), "Opus decoder codec closed\n");
    }
    EXPECT_EQ(printedBy([&] { EXPECT_EQ(decode(0, packet, javaArray(longestPcm)), -1); }, 2),
              "decoder null\n");
    EXPECT_EQ(printedBy([&] {
                  Decoder(close)(env, nullptr, 0);
                  for (const int channels : {-1, 0, 3, 255})
                      EXPECT_EQ(Decoder(open)(env, nullptr, channels, 0), 0);
              }),
              "");
}

TEST(OpusDecoder, TakesTheRedundantCopyWhenAskedTo) {
    const std::vector<Bytes> packets = soundStream("fec.opus").packets;
    const std::vector<Samples> plain = decodeAll(1, 0, packets);
    const std::vector<Samples> redundant = decodeAll(1, 1, packets);
    double product = 0, plainSquares = 0, redundantSquares = 0;
    for (size_t i = 10; i + 1 < packets.size(); ++i) {
        ASSERT_EQ(redundant[i].size(), 5760u);
        for (size_t k = 0; k < 960; ++k) {
            const double a = plain[i - 1].at(k), b = redundant[i][5760 - 960 + k];
            product += a * b, plainSquares += a * a, redundantSquares += b * b;
        }
    }
    EXPECT_GT(product / std::sqrt(plainSquares * redundantSquares), 0.5) << "concealment alone gives 0.06";

    const LocalFrame references;
    const jlong handle = openDecoder(1, 2);
    EXPECT_EQ(printedBy([&] { EXPECT_EQ(decode(handle, packets[0], javaArray(longestPcm)), 0); }, 2),
              "decoder failed: invalid argument\n");
    printedBy([&] { Decoder(close)(javaEnv(), nullptr, handle); });
}

TEST(EngineOpusDecoder, SurvivesCorruptPackets) {
    const std::vector<Bytes> packets = soundStream("fec.opus").packets;
    uint32_t random = 3;
    const auto next = [&](size_t range) { return (random = random * 1664525 + 1013904223) % range; };
    NOpusDecoder decoder;
    decoder.channels = 2;
    printedBy(
        [&] {
            printedBy([&] {
                decoder.open();
                for (int round = 0; round < 20; ++round)
                    for (Bytes packet : packets) {
                        for (int flips = 0; flips < 3; ++flips)
                            packet[next(packet.size())] ^= static_cast<uint8_t>(1 << next(8));
                        packet.resize(next(packet.size()));
                        packet.shrink_to_fit();
                        EXPECT_LE(decoder.decode(packet.data(), static_cast<int>(packet.size())), 5760);
                    }
                Bytes good = packets[0];
                EXPECT_EQ(decoder.decode(good.data(), static_cast<int>(good.size())), 960);
                decoder.close();
                decoder.close();
            });
        },
        2);
    EXPECT_FALSE(decoder.decoder || decoder.output);
}

TEST(OpusEncoder, AppliesItsSettings) {
    const struct {
        int channels, bitrate;
        const char* refused;
        opus_int32 signal, complexity, frameDuration, forcedChannels, vbr;
    } cases[] = {
        {2, 64000, "", OPUS_SIGNAL_MUSIC, 10, OPUS_FRAMESIZE_20_MS, 2, 0},
        {1, 64000, "failed to set OPUS_SET_FORCE_CHANNELS: invalid argument\n", OPUS_SIGNAL_MUSIC, 10,
         OPUS_FRAMESIZE_20_MS, OPUS_AUTO, 0},
        {2, 0, "failed to set bitrate: invalid argument\n", OPUS_AUTO, 9, OPUS_FRAMESIZE_ARG, OPUS_AUTO, 1}};
    for (const auto& expected : cases) {
        const LocalFrame references;
        jlong handle = 0;
        std::string printed;
        EXPECT_EQ(printedBy(
                      [&] {
                          printed = printedBy([&] {
                              handle =
                                  Encoder(open)(javaEnv(), nullptr, expected.channels, expected.bitrate, 20);
                          });
                      },
                      2),
                  expected.refused);
        EXPECT_EQ(printed, "Opus encoder - channels in: " + std::to_string(expected.channels) +
                               " out: 2 sample rate: 48000 bitrate: " + std::to_string(expected.bitrate) +
                               "\nOpus encoder opened\nOpus encoder codec opened\n");
        ASSERT_GT(handle, 0);
        EXPECT_EQ(setting(handle, OPUS_GET_APPLICATION_REQUEST), OPUS_APPLICATION_AUDIO);
        if (expected.bitrate > 0) {
            EXPECT_EQ(setting(handle, OPUS_GET_BITRATE_REQUEST), expected.bitrate);
        }
        EXPECT_EQ(setting(handle, OPUS_GET_SIGNAL_REQUEST), expected.signal);
        EXPECT_EQ(setting(handle, OPUS_GET_COMPLEXITY_REQUEST), expected.complexity);
        EXPECT_EQ(setting(handle, OPUS_GET_DTX_REQUEST), 0);
        EXPECT_EQ(setting(handle, OPUS_GET_EXPERT_FRAME_DURATION_REQUEST), expected.frameDuration);
        EXPECT_EQ(setting(handle, OPUS_GET_FORCE_CHANNELS_REQUEST), expected.forcedChannels);
        EXPECT_EQ(setting(handle, OPUS_GET_VBR_REQUEST), expected.vbr);
        printedBy(
            [&] { EXPECT_GT(encode(handle, testFrames(expected.channels, 1).at(0), javaArray(3828)), 1); });
        EXPECT_EQ(setting(handle, OPUS_GET_BANDWIDTH_REQUEST), OPUS_BANDWIDTH_FULLBAND);
        EXPECT_EQ(printedBy([&] { Encoder(close)(javaEnv(), nullptr, handle); }),
                  "Opus encoder codec closed\n");
    }
    EXPECT_EQ(printedBy([&] { Encoder(close)(javaEnv(), nullptr, 0); }), "");
    EXPECT_EQ(printedBy([&] { EXPECT_EQ(Encoder(open)(javaEnv(), nullptr, 3, 64000, 20), 0); }, 2),
              "failed to create an encoder: invalid argument\n");
}

TEST(OpusEncoder, FullbandIsForcedAtLowRates) {
    const std::vector<Bytes> packets = encodeAll(openEncoder(1, 16000, 20), testFrames(1, 10));
    EXPECT_EQ(opus_packet_get_bandwidth(packets.back().data()), OPUS_BANDWIDTH_FULLBAND);
}

TEST(OpusEncoder, TakesWholeFramesOnly) {
    std::vector<Bytes> frames = testFrames(2, 8), odd;
    for (const Bytes& frame : frames) {
        odd.push_back(frame);
        odd.back().pop_back();
        odd.push_back(frame);
        odd.back().resize(5000, 0x55);
    }
    const std::vector<Bytes> expected = encodeAll(openEncoder(2, 64000, 20), frames);
    const std::vector<Bytes> packets = encodeAll(openEncoder(2, 64000, 20), odd);
    for (size_t i = 0; i < frames.size(); ++i) {
        EXPECT_TRUE(packets[2 * i].empty());
        EXPECT_EQ(packets[2 * i + 1], expected[i]);
    }
}

TEST(OpusEncoder, EncodesFramesOf20Milliseconds) {
    const LocalFrame references;
    const struct {
        int frameDuration, inputSize, result;
    } cases[] = {{40, 4 * 1920, 160}, {40, 4 * 1920 - 1, 0}, {10, 4 * 480, 1}, {0, 0, 1},
                 {-20, 0, 1},         {INT_MAX, 100000, 0},  {INT_MIN, 0, 1}};
    for (const auto& [frameDuration, inputSize, result] : cases) {
        SCOPED_TRACE(frameDuration);
        const jlong handle = openEncoder(2, 64000, frameDuration);
        jbyteArray output = javaArray(3828);
        printedBy([&] {
            EXPECT_EQ(
                printedBy(
                    [&] { EXPECT_EQ(encode(handle, Bytes(static_cast<size_t>(inputSize)), output), result); },
                    2),
                result == 1 ? "encode failed: invalid argument\n" : "");
            Encoder(close)(javaEnv(), nullptr, handle);
        });
        const Bytes packet = bytesOf(output);
        if (result == 160) {
            EXPECT_EQ(opus_packet_get_samples_per_frame(packet.data(), 48000), 960);
        } else {
            EXPECT_EQ(packet[0], result == 1 ? 0 : 0xEE);
        }
    }
}

TEST(OpusEncoder, WrongCallsLeaveItUsable) {
    const LocalFrame references;
    JNIEnv* env = javaEnv();
    const Bytes frame = testFrames(2, 1).at(0);
    const jlong handle = openEncoder(2, 64000, 20);
    jbyteArray pcm = javaArray(frame), output = javaArray(160);
    EXPECT_EQ(Encoder(encode)(env, nullptr, nullptr, output, handle), 0);
    EXPECT_EQ(Encoder(encode)(env, nullptr, pcm, nullptr, handle), 0);
    EXPECT_EQ(printedBy([&] { EXPECT_EQ(Encoder(encode)(env, nullptr, pcm, output, 0), -1); }, 2),
              "encoder null\n");
    EXPECT_EQ(printedBy([&] { encode(handle, frame, javaArray(159)); }), "malloc 5760 init\n");
    EXPECT_EQ(takeException(), "java.lang.ArrayIndexOutOfBoundsException");
    EXPECT_EQ(printedBy([&] { EXPECT_EQ(encode(handle, frame, output), 160); }), "");
    printedBy([&] { Encoder(close)(env, nullptr, handle); });
}

TEST(EngineOpusEncoder, FreesWhatItHolds) {
    const Samples frame = testSound(2, 48000, 960);
    NOpusEncoder encoder;
    encoder.channels = 2;
    printedBy([&] {
        encoder.open();
        EXPECT_GT(encoder.encode(frame.data()), 1);
        encoder.close();
        encoder.close();
    });
    EXPECT_FALSE(encoder.encoder || encoder.packet);
}
