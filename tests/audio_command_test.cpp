#include "support/InstalledTool.h"
#include "support/Sound.h"

namespace {

class InstalledAudio : public InstalledTool {
protected:
    void convert(const std::string& from, const std::string& to) {
        ASSERT_EQ(run("kelvane", "audio " + from + " -o " + to), 0) << errors;
        EXPECT_EQ(errors, "");
    }
    // The samples that FFmpeg finds in a file.
    Samples decoded(const std::string& file, int sampleRate, int channels) {
        EXPECT_EQ(run("ffmpeg", "-v error -y -i " + file + " -ar " + std::to_string(sampleRate) + " -ac " +
                                    std::to_string(channels) + " -f s16le decoded.pcm"),
                  0)
            << errors;
        return samplesOf(readFile(path("decoded.pcm")));
    }
    std::string codec(const std::string& file) {
        return probe(file, "stream=codec_name,sample_rate,channels");
    }
};

constexpr size_t sourceSamples = 26460; // of the vectors at 44100 Hz; 28800 at 48000

} // namespace

TEST_F(InstalledAudio, KeepsSoundAndLengthThroughOpus) {
    for (const std::string source : {"stereo.mp3", "stereo.m4a"}) {
        SCOPED_TRACE(source);
        convert(TEST_DATA "/" + source, "sound.opus");
        EXPECT_TRUE(
            std::regex_search(output, std::regex("0\\.6 s of sound in [0-9.]+ s: [0-9.]+ times real time; "
                                                 "[0-9]+ bytes, (9[5-9]|1[01][0-9])\\.[0-9] kbit/s\n")))
            << output;
        EXPECT_EQ(codec("sound.opus"), "opus,48000,2\n");
        convert("sound.opus", "sound.wav");
        EXPECT_EQ(codec("sound.wav"), "pcm_s16le,48000,2\n");
        const Samples result = decoded("sound.wav", 48000, 2);
        EXPECT_EQ(result.size(), 2 * 28800u);
        EXPECT_EQ(decoded("sound.opus", 48000, 2).size(), result.size())
            << "other players hear another length";
        const Samples original = decoded(TEST_DATA "/" + source, 48000, 2);
        EXPECT_GT(snr(original, result, 2, 0, 0), 12);
        EXPECT_GT(snr(original, result, 2, 1, 0), 12);
    }
}

TEST_F(InstalledAudio, DecodesWithoutTheEncodersLeadIn) {
    for (const std::string source : {"stereo.mp3", "stereo.m4a"}) {
        SCOPED_TRACE(source);
        convert(TEST_DATA "/" + source, "sound.wav");
        const Samples result = decoded("sound.wav", 44100, 2);
        Samples expected =
            decoded(TEST_DATA "/" + source, 44100, 2); // FFmpeg leaves the end of the last AAC packet
        ASSERT_GE(expected.size(), 2 * sourceSamples);
        expected.resize(2 * sourceSamples);
        EXPECT_LE(largestDifference(result, expected), 1);
    }
}

TEST_F(InstalledAudio, EncodesAacToItsEnd) {
    for (const int channels : {1, 2}) {
        const std::string source = channels == 1 ? TEST_DATA "/mono.mp3" : TEST_DATA "/stereo.mp3";
        convert(source, "sound.aac");
        EXPECT_EQ(codec("sound.aac"), "aac,44100," + std::to_string(channels) + "\n");
        convert("sound.aac", "sound.wav");
        const Samples result = decoded("sound.wav", 44100, channels);
        const auto count = static_cast<size_t>(channels);
        EXPECT_EQ(result.size(), 27 * 1024 * count) << "26 blocks and the lead-in";
        Samples original = decoded(source, 44100, channels);
        original.resize(27 * 1024 * count);
        for (size_t channel = 0; channel < count; ++channel)
            EXPECT_GT(snr(original, result, count, channel, 1024), 10);
    }
}

TEST_F(InstalledAudio, ReadsWavOfAnyRate) {
    ASSERT_EQ(run("ffmpeg", "-v error -f lavfi -i sine=frequency=700:sample_rate=37800:duration=0.5 in.wav"),
              0)
        << errors;
    convert("in.wav", "out.aac");
    EXPECT_EQ(codec("out.aac"), "aac,48000,1\n");
    convert("in.wav", "out.wav");
    EXPECT_TRUE(decoded("out.wav", 37800, 1) == decoded("in.wav", 37800, 1));
}

TEST_F(InstalledAudio, SilenceStandsInForDamage) {
    std::string sound = contents(TEST_DATA "/stereo.m4a");
    std::fill_n(sound.begin() + 3000, 600, '\xff');
    std::ofstream(path("holes.m4a"), std::ios::binary) << sound;
    convert("holes.m4a", "sound.wav");
    EXPECT_TRUE(std::regex_search(output, std::regex("damaged source: [1-4] packets"))) << output;
    EXPECT_EQ(decoded("sound.wav", 44100, 2).size(), 2 * sourceSamples);
}

TEST_F(InstalledAudio, FailsInOneLineAndLeavesNothing) {
    std::ofstream(path("text")) << "no media";
    ASSERT_EQ(run("ffmpeg", "-v error -f lavfi -i anullsrc=channel_layout=5.1 -t 0.2 -c:a aac six.aac"), 0)
        << errors;
    fs::copy(TEST_DATA "/stereo.m4a", path("sound.m4a"));
    fs::copy(TEST_DATA "/mono.mp3", path("same.wav"));
    expectFailure("audio sound.m4a", 2, "--output");
    expectFailure("audio sound.m4a -o out.mp3", 2, "OUT must end in");
    expectFailure("audio same.wav -o ./same.wav", 2, "is the input itself");
    expectFailure("audio missing.mp3 -o out.wav", 1, "no such file");
    expectFailure("audio text -o out.wav", 1, "not a media file");
    expectFailure("audio in.h264 -o out.wav", 1, "no sound.*video h264");
    expectFailure("audio six.aac -o out.wav", 1, "6 channels");
    expectFailure("audio sound.m4a -o text/out.wav", 1, "cannot write");
}
