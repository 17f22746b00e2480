#include "audio/MP3AudioDecoder.h"
#include "com_kelvane_media_transform_codec_MPADecoder.h"
#include "support/JavaMachine.h"
#include "support/Output.h"
#include "support/Sound.h"

#include <gtest/gtest.h>

#define MPADecoder(name) Java_com_kelvane_media_transform_codec_MPADecoder_##name

namespace {

class JavaDecoder {
public:
    JavaDecoder() {
        EXPECT_EQ(printedBy([&] { handle = MPADecoder(open)(javaEnv(), nullptr); }), "codec opened\n");
        EXPECT_EQ(reinterpret_cast<MP3AudioDecoder*>(handle)->handle, handle);
    }
    ~JavaDecoder() {
        EXPECT_EQ(printedBy([&] { MPADecoder(close)(javaEnv(), nullptr, handle); }),
                  "MP3 decoder codec closed\n");
    }
    int decode(const Bytes& frame, jbyteArray info, jbyteArray output) {
        return MPADecoder(decode)(javaEnv(), nullptr, javaArray(frame), info, output, handle);
    }
    jlong handle = 0;
};

const Bytes untouched(5, 0xEE);
const Bytes delivered1152{1, 0, 0, 4, 128};

} // namespace

TEST(MP3Decoder, SamplesEqualFFmpegsOwn) {
    const struct {
        const char* vector;
        int channels;
    } cases[] = {{"stereo.mp3", 2}, {"mono.mp3", 1}};
    for (const auto& [vector, channels] : cases) {
        SCOPED_TRACE(vector);
        const SoundStream stream = soundStream(vector);
        const std::vector<Samples> expected = referenceSound(AV_CODEC_ID_MP3, stream, 44100, channels);
        ASSERT_GT(stream.packets.size(), 20u);
        JavaDecoder decoder;
        EXPECT_EQ(printedBy([&] {
                      for (size_t i = 0; i < stream.packets.size(); ++i) {
                          const LocalFrame references;
                          jbyteArray info = javaArray(5), output = javaArray(channels * 2304);
                          EXPECT_EQ(decoder.decode(stream.packets[i], info, output), 0);
                          EXPECT_EQ(bytesOf(info), delivered1152);
                          EXPECT_TRUE(samplesOf(bytesOf(output)) == expected[i]) << "frame " << i;
                      }
                  }),
                  "");
    }
}

TEST(MP3Decoder, DropsWhatFollowsTheFirstFrame) {
    SoundStream stream = soundStream("stereo.mp3");
    const std::vector<Samples> expected = referenceSound(AV_CODEC_ID_MP3, stream, 44100, 2);
    JavaDecoder decoder;
    for (size_t i = 0; i + 1 < stream.packets.size(); ++i) {
        const LocalFrame references;
        Bytes input = stream.packets[i];
        const bool twoFrames = i % 5 == 3;
        if (twoFrames) input.insert(input.end(), stream.packets[i + 1].begin(), stream.packets[i + 1].end());
        jbyteArray info = javaArray(5), output = javaArray(5000);
        EXPECT_EQ(decoder.decode(input, info, output), 0);
        EXPECT_EQ(bytesOf(info), delivered1152);
        Bytes pcm = bytesOf(output);
        EXPECT_EQ(Bytes(pcm.begin() + 4608, pcm.end()), Bytes(392, 0xEE));
        pcm.resize(4608);
        EXPECT_TRUE(samplesOf(pcm) == expected[i]) << "frame " << i;
        i += twoFrames; // the caller goes on behind what it handed over
    }
}

TEST(MP3Decoder, DeliversNothingForWrongCalls) {
    JNIEnv* env = javaEnv();
    const LocalFrame references;
    const SoundStream stream = soundStream("stereo.mp3");
    const std::vector<Samples> expected = referenceSound(AV_CODEC_ID_MP3, stream, 44100, 2);
    JavaDecoder decoder;
    jbyteArray frame = javaArray(stream.packets[0]), info = javaArray(5), output = javaArray(4608),
               shortOutput = javaArray(4607);
    EXPECT_EQ(printedBy([&] {
                  EXPECT_EQ(decoder.decode({}, info, output), 0);
                  EXPECT_EQ(decoder.decode(Bytes(400, 0x5A), info, output), 0);
                  EXPECT_EQ(MPADecoder(decode)(env, nullptr, nullptr, info, output, decoder.handle), 0);
                  EXPECT_EQ(MPADecoder(decode)(env, nullptr, frame, nullptr, output, decoder.handle), 0);
                  EXPECT_EQ(MPADecoder(decode)(env, nullptr, frame, info, nullptr, decoder.handle), 0);
                  EXPECT_EQ(MPADecoder(decode)(env, nullptr, frame, info, output, 0), 0);
                  MPADecoder(close)(env, nullptr, 0);
              }),
              "");
    EXPECT_EQ(printedBy([&] { EXPECT_EQ(decoder.decode(stream.packets[0], info, shortOutput), -4608); }),
              "error, expected sample size did not match 4608 \n");
    EXPECT_EQ(bytesOf(info), untouched);
    EXPECT_EQ(bytesOf(output), Bytes(4608, 0xEE));
    EXPECT_EQ(bytesOf(shortOutput), Bytes(4607, 0xEE));
    decoder.decode(stream.packets[1], javaArray(4), output);
    EXPECT_EQ(takeException(), "java.lang.ArrayIndexOutOfBoundsException");
    EXPECT_TRUE(samplesOf(bytesOf(output)) == expected[1]) << "the wrong calls left their mark";
}

TEST(EngineMP3Decoder, SurvivesCorruptFrames) {
    const SoundStream stream = soundStream("stereo.mp3");
    uint32_t random = 7;
    const auto next = [&](size_t range) { return (random = random * 1664525 + 1013904223) % range; };
    MP3AudioDecoder decoder;
    int delivered = 0;
    printedBy([&] {
        decoder.open();
        for (int round = 0; round < 40; ++round)
            for (Bytes frame : stream.packets) {
                for (int flips = 0; flips < 4; ++flips)
                    frame[next(frame.size())] ^= static_cast<uint8_t>(1 << next(8));
                frame.resize(1 + next(2 * frame.size()));
                frame.shrink_to_fit();
                delivered += decoder.decode(frame.data(), static_cast<int>(frame.size())) > 0;
            }
        decoder.close();
        decoder.close();
    });
    EXPECT_GT(delivered, 0);
    EXPECT_FALSE(decoder.context || decoder.frame);
}

TEST(EngineMP3Decoder, TakesADecoderOf16BitSamples) {
    const AVSampleFormat floating[] = {AV_SAMPLE_FMT_FLTP, AV_SAMPLE_FMT_NONE};
    const AVSampleFormat fixed[] = {AV_SAMPLE_FMT_S16P, AV_SAMPLE_FMT_NONE};
    AVCodec floatingPoint{}, fixedPoint{};
    const AVCodec unknown{};
    floatingPoint.sample_fmts = floating;
    fixedPoint.sample_fmts = fixed;
    EXPECT_EQ(firstWith16BitSamples({&floatingPoint, &fixedPoint}), &fixedPoint);
    EXPECT_EQ(firstWith16BitSamples({&floatingPoint, nullptr, &unknown}), nullptr);
}
