#include "audio/NOpusDecoder.h"
#include "audio/NOpusEncoder.h"
#include "com_kelvane_media_transform_codec_NOpusDecoder.h"
#include "com_kelvane_media_transform_codec_NOpusEncoder.h"
#include "support/Output.h"
#include "support/Sound.h"

#include <gtest/gtest.h>

#include <climits>
#include <cmath>
#include <cstring>
#include <iterator>
#include <random>

#define Decoder(name) Java_com_kelvane_media_transform_codec_NOpusDecoder_##name
#define Encoder(name) Java_com_kelvane_media_transform_codec_NOpusEncoder_##name

namespace {

constexpr int longestPcm = 5760 * 2 * 2;

int decode(jlong handle, const Bytes& packet, jbyteArray output) {
    return Decoder(decode)(javaEnv(), nullptr, javaArray(packet), output, handle);
}

Samples decodeAll(int channels, int fec, const std::vector<Bytes>& packets) {
    Samples decoded;
    const jlong handle = Decoder(open)(javaEnv(), nullptr, channels, fec);
    for (const Bytes& packet : packets) {
        const LocalFrame references;
        jbyteArray output = javaArray(longestPcm);
        const int size = decode(handle, packet, output);
        const Samples samples = samplesOf(written(output, size * channels * 2));
        decoded.insert(decoded.end(), samples.begin(), samples.end());
    }
    Decoder(close)(javaEnv(), nullptr, handle);
    return decoded;
}

jlong openEncoder(int channels, int bitrate, int frameDuration) {
    return Encoder(open)(javaEnv(), nullptr, channels, bitrate, frameDuration);
}

int encode(jlong handle, const Bytes& pcm, jbyteArray output) {
    return Encoder(encode)(javaEnv(), nullptr, javaArray(pcm), output, handle);
}

std::vector<Bytes> encodeAll(int channels, int bitrate, const Samples& sound) {
    const auto frameSamples = static_cast<size_t>(960 * channels);
    std::vector<Bytes> packets;
    const jlong handle = openEncoder(channels, bitrate, 20);
    for (size_t i = 0; i < sound.size() / frameSamples; ++i) {
        const LocalFrame references;
        jbyteArray output = javaArray(3828);
        Bytes frame = pcmBlock(sound, i, frameSamples);
        EXPECT_EQ(encode(handle, Bytes(frame.begin(), frame.end() - 1), output), 0);
        frame.resize(5000, 0x55); // more than a frame, which is left alone
        const int size = encode(handle, frame, output);
        packets.push_back(written(output, size));
    }
    Encoder(close)(javaEnv(), nullptr, handle);
    return packets;
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
    for (const int channels : {1, 2}) {
        const auto count = static_cast<size_t>(channels);
        const Samples sound = testSound(channels, 48000, 50 * 960);
        const std::vector<Bytes> packets = encodeAll(channels, channels * 64000, sound);
        for (const Bytes& packet : packets)
            EXPECT_EQ(packet.size(), count * 160) << "a constant bit rate";
        const Samples decoded = decodeAll(channels, 0, packets);
        for (size_t channel = 0; channel < count; ++channel)
            EXPECT_GT(snr(sound, decoded, count, channel, lookahead), 20);
        if (channels == 1) continue;
        const Samples left = decodeAll(1, 0, packets);
        ASSERT_EQ(left.size() * 2, decoded.size());
        for (size_t i = 0; i < left.size(); ++i)
            ASSERT_EQ(left[i], decoded[2 * i]);
    }
}

TEST(OpusDecoder, TellsWhatHappensToIt) {
    const LocalFrame references;
    JNIEnv* env = javaEnv();
    const Bytes packet = streamOf("fec.opus").calls.at(0);
    jbyteArray output = javaArray(longestPcm), shortOutput = javaArray(1919);
    jlong handle = 0;
    EXPECT_EQ(printedBy([&] { handle = Decoder(open)(env, nullptr, 1, 0); }),
              "Opus decoder - channels in: 2 out: 1\nOpus decoder opened\nOpus decoder codec opened\n");
    EXPECT_EQ(printedBy([&] { EXPECT_EQ(decode(handle, packet, output), 960); }), "malloc 1920 init\n");
    EXPECT_EQ(printedBy([&] { EXPECT_EQ(decode(handle, {}, output), 5760); }), "");
    EXPECT_EQ(printedBy([&] { EXPECT_EQ(decode(handle, packet, shortOutput), -1920); }),
              "error, expected sample size did not match 1920\n");
    EXPECT_EQ(printedBy([&] { EXPECT_EQ(decode(handle, Bytes(3, 0xFF), shortOutput), 0); }, 2),
              "decoder failed: corrupted stream\n");
    EXPECT_EQ(printedBy([&] { EXPECT_EQ(decode(0, packet, shortOutput), -1); }, 2), "decoder null\n");
    written(shortOutput, 0);
    EXPECT_EQ(decode(handle, packet, javaArray(1920)), 960) << "and still decodes";
    EXPECT_EQ(printedBy([&] { Decoder(close)(env, nullptr, handle); }), "Opus decoder codec closed\n");
    for (const int channels : {0, 3})
        EXPECT_EQ(Decoder(open)(env, nullptr, channels, 0), 0);
}

TEST(OpusDecoder, TakesTheRedundantCopyWhenAskedTo) {
    const std::vector<Bytes> packets = streamOf("fec.opus").calls;
    const Samples plain = decodeAll(1, 0, packets), redundant = decodeAll(1, 1, packets);
    ASSERT_EQ(redundant.size(), packets.size() * 5760);
    double product = 0, plainSquares = 0, redundantSquares = 0;
    for (size_t i = 10; i + 1 < packets.size(); ++i)
        for (size_t k = 0; k < 960; ++k) {
            const double a = plain.at((i - 1) * 960 + k), b = redundant[(i + 1) * 5760 - 960 + k];
            product += a * b, plainSquares += a * a, redundantSquares += b * b;
        }
    EXPECT_GT(product / std::sqrt(plainSquares * redundantSquares), 0.5) << "concealment alone gives 0.06";
    EXPECT_TRUE(decodeAll(1, 2, packets).empty()) << "no such choice";
}

// As libopus alone does, of the length that is asked for, whatever it was made for.
TEST(OpusDecoder, ConcealsAsMuchAsIsAskedFor) {
    const std::vector<Bytes> packets = streamOf("fec.opus").calls;
    for (const int fec : {0, 1}) {
        const jlong handle = Decoder(open)(javaEnv(), nullptr, 2, fec);
        const OpusDecoderOwner bare(opus_decoder_create(48000, 2, nullptr));
        std::vector<opus_int16> pcm(5760 * 2);
        EXPECT_EQ(Decoder(conceal)(javaEnv(), nullptr, 960, nullptr, handle), 0);
        size_t next = 0;
        for (const int asked : {960, 120, 2880, 5760, 0, 100, -120, 5880}) {
            const LocalFrame references;
            const Bytes& packet = packets.at(next++);
            const auto size = static_cast<int>(packet.size());
            EXPECT_EQ(opus_decode(bare.get(), packet.data(), size, pcm.data(), 5760, fec),
                      decode(handle, packet, javaArray(longestPcm)));
            jbyteArray output = javaArray(longestPcm);
            const int samples = Decoder(conceal)(javaEnv(), nullptr, asked, output, handle);
            const bool allowed = asked >= 120 && asked <= 5760 && asked % 120 == 0;
            ASSERT_EQ(samples, allowed ? asked : 0);
            const Samples concealed = samplesOf(written(output, samples * 4));
            if (!allowed) continue;
            ASSERT_EQ(opus_decode(bare.get(), nullptr, 0, pcm.data(), asked, 0), asked);
            EXPECT_EQ(concealed, Samples(pcm.begin(), pcm.begin() + 2 * asked)) << asked;
            jbyteArray tooShort = javaArray(asked * 4 - 1); // which loses the samples
            EXPECT_EQ(Decoder(conceal)(javaEnv(), nullptr, asked, tooShort, handle), -asked * 4);
            ASSERT_EQ(opus_decode(bare.get(), nullptr, 0, pcm.data(), asked, 0), asked);
        }
        Decoder(close)(javaEnv(), nullptr, handle);
    }
}

// A stranger's packets write to the log of a server that does not limit them.
TEST(OpusDecoder, TellsOfSoManyBadPackets) {
    const LocalFrame references;
    const std::string line = "decoder failed: corrupted stream\n";
    const jlong handle = Decoder(open)(javaEnv(), nullptr, 2, 0);
    const auto told = [&] {
        const auto decodeFour = [&] {
            for (int i = 0; i < 4; ++i)
                decode(handle, Bytes(3, 0xFF), javaArray(longestPcm));
        };
        return printedBy(decodeFour, 2);
    };
    EXPECT_EQ(told(), repeated(line, 4));
    for (const auto& [limit, lines] : {std::pair(1, 1), std::pair(0, 0), std::pair(3, 3), std::pair(-1, 4)}) {
        Decoder(limitFailureLines)(javaEnv(), nullptr, limit, handle);
        EXPECT_EQ(told(), repeated(line, lines));
        EXPECT_EQ(told(), repeated(line, limit < 0 ? lines : 0));
    }
    Decoder(close)(javaEnv(), nullptr, handle);
}

TEST(OpusEncoder, AppliesItsSettings) {
    const struct {
        int channels, bitrate;
        const char* refused;
        opus_int32 signal, complexity;
    } cases[] = {
        {2, 64000, "", OPUS_SIGNAL_MUSIC, 10},
        {1, 64000, "failed to set OPUS_SET_FORCE_CHANNELS: invalid argument\n", OPUS_SIGNAL_MUSIC, 10},
        {2, 0, "failed to set bitrate: invalid argument\n", OPUS_AUTO, 9}};
    for (const auto& [channels, bitrate, refused, signal, complexity] : cases) {
        jlong handle = 0;
        EXPECT_EQ(printedBy([&] { handle = openEncoder(channels, bitrate, 20); }, 2), refused);
        ASSERT_GT(handle, 0);
        EXPECT_EQ(setting(handle, OPUS_GET_SIGNAL_REQUEST), signal);
        EXPECT_EQ(setting(handle, OPUS_GET_COMPLEXITY_REQUEST), complexity);
        EXPECT_EQ(setting(handle, OPUS_GET_APPLICATION_REQUEST), OPUS_APPLICATION_AUDIO);
        Encoder(close)(javaEnv(), nullptr, handle);
    }
    EXPECT_EQ(printedBy([&] { EXPECT_EQ(openEncoder(3, 64000, 20), 0); }, 2),
              "failed to create an encoder: invalid argument\n");

    // By itself libopus would leave out the high tones and the difference between left and right.
    const Bytes packet = encodeAll(2, 16000, testSound(2, 48000, 10 * 960)).at(9);
    EXPECT_EQ(opus_packet_get_bandwidth(packet.data()), OPUS_BANDWIDTH_FULLBAND);
    EXPECT_EQ(opus_packet_get_nb_channels(packet.data()), 2);
}

// Speech, or what libopus takes for it: each is a tone whose strength changes.
Samples speechLike(int samples) {
    Samples sound = testSound(1, 48000, samples);
    for (size_t i = 0; i < sound.size(); ++i)
        sound[i] = static_cast<int16_t>(sound[i] * std::pow(std::sin(static_cast<double>(i) / 4000), 2));
    return sound;
}

// Packet by packet what libopus alone makes of the same settings, those that change on the way among them.
TEST(OpusEncoder, TakesSettingsWhileItRuns) {
    using Settings = std::vector<std::pair<int, int>>;
    constexpr int duration = OPUS_SET_EXPERT_FRAME_DURATION_REQUEST, voip = OPUS_APPLICATION_VOIP;
    const struct {
        int samples; // of a frame
        Settings first, then;
    } cases[] = {
        {960, {}, {{OPUS_SET_BITRATE_REQUEST, 24000}}},
        {960,
         {{OPUS_SET_APPLICATION_REQUEST, voip},
          {OPUS_SET_SIGNAL_REQUEST, OPUS_SIGNAL_VOICE},
          {OPUS_SET_BANDWIDTH_REQUEST, OPUS_AUTO},
          {OPUS_SET_FORCE_CHANNELS_REQUEST, OPUS_AUTO},
          {OPUS_SET_INBAND_FEC_REQUEST, 1},
          {OPUS_SET_PACKET_LOSS_PERC_REQUEST, 20}},
         {{OPUS_SET_PACKET_LOSS_PERC_REQUEST, 0}, {OPUS_SET_VBR_REQUEST, 1}}},
        {120, {{OPUS_SET_APPLICATION_REQUEST, OPUS_APPLICATION_RESTRICTED_LOWDELAY}, {duration, 5001}}, {}},
        {240, {{duration, 5002}}, {{OPUS_SET_COMPLEXITY_REQUEST, 0}}},
        {480, {{duration, 5003}}, {{OPUS_SET_VBR_REQUEST, 1}, {OPUS_SET_VBR_CONSTRAINT_REQUEST, 0}}},
        {1920, {{duration, 5005}}, {{OPUS_SET_DTX_REQUEST, 1}}},
        {2880, {{duration, 5006}}, {{OPUS_SET_BITRATE_REQUEST, 510000}}}};
    const Samples sound = speechLike(40 * 2880);
    for (const auto& [samples, first, then] : cases) {
        SCOPED_TRACE(samples);
        const jlong handle = openEncoder(1, 64000, 20), bareHandle = openEncoder(1, 64000, 20);
        OpusEncoder* bare = reinterpret_cast<NOpusEncoder*>(bareHandle)->encoder.get();
        const auto apply = [&](const Settings& settings) {
            for (const auto& [request, value] : settings) {
                EXPECT_EQ(Encoder(set)(javaEnv(), nullptr, request, value, handle), 1);
                ASSERT_EQ(opus_encoder_ctl(bare, request, value), OPUS_OK);
            }
        };
        apply(first);
        for (size_t i = 0; i < 40; ++i) {
            const LocalFrame references;
            if (i == 20) apply(then);
            jbyteArray output = javaArray(3828);
            const Bytes frame = pcmBlock(sound, i, static_cast<size_t>(samples));
            EXPECT_EQ(encode(handle, Bytes(frame.begin(), frame.end() - 1), output), 0);
            const int size = encode(handle, frame, output);
            EXPECT_EQ(Encoder(packetSize)(javaEnv(), nullptr, handle), size);
            Bytes expected(3828);
            const int bareSize = opus_encode(bare, samplesOf(frame).data(), samples,
                                             reinterpret_cast<unsigned char*>(expected.data()), 3828);
            expected.resize(static_cast<size_t>(bareSize));
            ASSERT_EQ(written(output, size), expected) << i;
            EXPECT_EQ(opus_packet_get_nb_samples(expected.data(), bareSize, 48000), samples);
        }
        constexpr int refused[][2] = {{OPUS_SET_APPLICATION_REQUEST, voip + 5},
                                      {OPUS_SET_BITRATE_REQUEST, 0},
                                      {duration, OPUS_FRAMESIZE_ARG},
                                      {duration, OPUS_FRAMESIZE_80_MS},
                                      {OPUS_RESET_STATE, 0},
                                      {OPUS_GET_BITRATE_REQUEST, 0},
                                      {OPUS_SET_COMPLEXITY_REQUEST, 11}};
        for (const auto& [request, value] : refused)
            EXPECT_EQ(Encoder(set)(javaEnv(), nullptr, request, value, handle), 0) << request;
        Encoder(close)(javaEnv(), nullptr, handle);
        Encoder(close)(javaEnv(), nullptr, bareHandle);
    }
}

// As libopus alone does it, for all lengths: by concealment where the packet has no copy, and close to what
// was lost where it has one.
TEST(OpusDecoder, MakesLostPacketsOfTheNextOnesCopy) {
    const std::vector<Bytes> speech = streamOf("fec.opus").calls;
    const std::vector<Bytes> music = encodeAll(2, 64000, testSound(2, 48000, 60 * 960));
    const Samples whole = decodeAll(2, 0, speech);
    int copies = 0;
    double product = 0, madeSquares = 0, lostSquares = 0;
    for (const std::vector<Bytes>& packets : {speech, music}) {
        const jlong handle = Decoder(open)(javaEnv(), nullptr, 2, 0);
        const OpusDecoderOwner bare(opus_decoder_create(48000, 2, nullptr));
        const OpusDecoderOwner twin(opus_decoder_create(48000, 2, nullptr));
        std::vector<opus_int16> pcm(5760 * 2), concealed(5760 * 2);
        const auto bareDecode = [&](const Bytes& packet, int samples, int fec) {
            return opus_decode(bare.get(), packet.data(), static_cast<int>(packet.size()), pcm.data(),
                               samples, fec);
        };
        const auto lost = [&](size_t i, int asked) {
            const LocalFrame references;
            const Bytes& next = packets[i];
            jbyteArray packet = javaArray(next), output = javaArray(longestPcm);
            const bool carries = Decoder(carriesFec)(javaEnv(), nullptr, packet) == JNI_TRUE;
            const int samples = Decoder(decodeLost)(javaEnv(), nullptr, asked, packet, output, handle);
            const Samples made = samplesOf(written(output, samples * 4));
            const bool allowed = asked >= 120 && asked <= 5760 && asked % 120 == 0;
            ASSERT_EQ(samples, allowed ? asked : 0);
            if (!allowed) return;
            std::memcpy(twin.get(), bare.get(), static_cast<size_t>(opus_decoder_get_size(2)));
            ASSERT_EQ(bareDecode(next, asked, 1), asked);
            EXPECT_EQ(made, Samples(pcm.begin(), pcm.begin() + 2 * asked)) << asked;
            ASSERT_EQ(opus_decode(twin.get(), nullptr, 0, concealed.data(), asked, 0), asked);
            const bool other = !std::equal(made.begin(), made.end(), concealed.begin());
            EXPECT_EQ(other, carries && asked >= 960) << i << ", " << asked;
            copies += other;
            if (!other || asked != 960) return;
            for (size_t k = 0; k < made.size(); ++k) {
                const double a = whole.at((i - 1) * 1920 + k), b = made[k];
                product += a * b, lostSquares += a * a, madeSquares += b * b;
            }
        };
        constexpr int lengths[] = {960, 120, 960, 1920, 960, 5760, 960, 0, 100, -960, 5880};
        for (size_t i = 1; i < packets.size(); i += 2) {
            lost(i, lengths[i / 2 % std::size(lengths)]);
            const LocalFrame references;
            const Bytes& packet = packets[i];
            EXPECT_EQ(decode(handle, packet, javaArray(longestPcm)), 960);
            EXPECT_EQ(bareDecode(packet, 5760, 0), 960);
        }
        // Noise is refused or concealed, and nothing else.
        std::minstd_rand random;
        for (int trial = 0; trial < 2000; ++trial) {
            const LocalFrame references;
            Bytes noise(random() % 40);
            for (uint8_t& byte : noise)
                byte = static_cast<uint8_t>(random() >> 8);
            const int asked = 120 * static_cast<int>(random() % 50);
            jbyteArray packet = javaArray(noise), output = javaArray(longestPcm);
            Decoder(carriesFec)(javaEnv(), nullptr, packet);
            const int made = Decoder(decodeLost)(javaEnv(), nullptr, asked, packet, output, handle);
            EXPECT_TRUE(made == 0 || made == asked);
        }
        Decoder(close)(javaEnv(), nullptr, handle);
    }
    EXPECT_GT(copies, 5);
    EXPECT_GT(product / std::sqrt(lostSquares * madeSquares), 0.8);
}

TEST(OpusEncoder, EncodesFramesOf20Milliseconds) {
    const LocalFrame references;
    const struct {
        int frameDuration;
        size_t inputSize;
        int result;
    } cases[] = {{40, 7680, 160}, {40, 7679, 0}, {10, 1920, 1}, {INT_MAX, 100000, 0}, {INT_MIN, 0, 1}};
    for (const auto& [frameDuration, inputSize, result] : cases) {
        SCOPED_TRACE(frameDuration);
        const jlong handle = openEncoder(2, 64000, frameDuration);
        jbyteArray output = javaArray(3828);
        EXPECT_EQ(printedBy([&] { EXPECT_EQ(encode(handle, Bytes(inputSize), output), result); }, 2),
                  result == 1 ? "encode failed: invalid argument\n" : "");
        const Bytes packet = written(output, result);
        if (result == 1) {
            EXPECT_EQ(packet, Bytes{0});
        } else if (result > 1) {
            EXPECT_EQ(opus_packet_get_samples_per_frame(packet.data(), 48000), 960);
        }
        Encoder(close)(javaEnv(), nullptr, handle);
    }
}

TEST(OpusEncoder, TellsWhatHappensToIt) {
    const LocalFrame references;
    const Bytes frame(3840);
    jlong handle = 0;
    EXPECT_EQ(printedBy([&] { handle = openEncoder(2, 64000, 20); }),
              "Opus encoder - channels in: 2 out: 2 sample rate: 48000 bitrate: 64000\n"
              "Opus encoder opened\nOpus encoder codec opened\n");
    jbyteArray output = javaArray(160);
    EXPECT_EQ(printedBy([&] { EXPECT_EQ(encode(0, frame, output), -1); }, 2), "encoder null\n");
    EXPECT_EQ(printedBy([&] { encode(handle, frame, javaArray(159)); }), "malloc 5760 init\n");
    EXPECT_EQ(takeException(), "java.lang.ArrayIndexOutOfBoundsException");
    EXPECT_EQ(printedBy([&] { EXPECT_EQ(encode(handle, frame, output), 160); }), "");
    EXPECT_EQ(printedBy([&] { Encoder(close)(javaEnv(), nullptr, handle); }), "Opus encoder codec closed\n");
}
