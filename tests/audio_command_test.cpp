#include "support/InstalledTool.h"
#include "support/Sound.h"

namespace {

class InstalledAudio : public InstalledTool {
protected:
    void convert(const std::string& from, const std::string& to) { kelvane("audio " + from + " -o " + to); }
    // The samples that FFmpeg finds in a file.
    Samples decoded(const std::string& file, int sampleRate, int channels) {
        ffmpeg("-i " + file + " -ar " + std::to_string(sampleRate) + " -ac " + std::to_string(channels) +
               " -f s16le decoded.pcm");
        return samplesOf(readFile(path("decoded.pcm")));
    }
    std::string codec(const std::string& file) {
        return probe(file, "stream=codec_name,sample_rate,channels");
    }
};

constexpr size_t sourceSamples = 26460; // of the stereo vectors, at 44100 Hz; 28800 at 48000

} // namespace

TEST_F(InstalledAudio, DecodesWithoutTheEncodersLeadIn) {
    for (const std::string source : {TEST_DATA "/stereo.mp3", TEST_DATA "/stereo.m4a"}) {
        SCOPED_TRACE(source);
        convert(source, "sound.wav");
        Samples expected = decoded(source, 44100, 2); // FFmpeg leaves the end of the last AAC packet
        ASSERT_GE(expected.size(), 2 * sourceSamples);
        expected.resize(2 * sourceSamples);
        EXPECT_LE(largestDifference(decoded("sound.wav", 44100, 2), expected), 1);
    }
}

TEST_F(InstalledAudio, KeepsSoundAndLength) {
    const struct {
        const char *file, *codec, *kilobits;
        int sampleRate;
        size_t samples, leadIn;
        double leastSnr;
    } cases[] = {
        {"sound.opus", "opus,48000,2\n", "(9[5-9]|1[01][0-9])", 48000, 28800, 0, 12},
        {"sound.aac", "aac,44100,2\n", "[67][0-9]", 44100, 27 * 1024, 1024, 10}}; // 26 blocks and the lead-in
    for (const auto& [file, codecName, kilobits, sampleRate, samples, leadIn, leastSnr] : cases) {
        SCOPED_TRACE(file);
        convert(TEST_DATA "/stereo.mp3", file);
        const std::regex summary("0\\.6 s of sound in [0-9.]+ s: [0-9.]+ times real time; [0-9]+ bytes, " +
                                 std::string(kilobits) + "\\.[0-9] kbit/s\n");
        EXPECT_TRUE(std::regex_search(output, summary)) << output;
        EXPECT_EQ(codec(file), codecName);
        EXPECT_EQ(decoded(file, sampleRate, 2).size(), samples * 2) << "as other players hear it";
        convert(file, "sound.wav");
        const Samples result = decoded("sound.wav", sampleRate, 2);
        EXPECT_EQ(result.size(), samples * 2);
        const Samples original = decoded(TEST_DATA "/stereo.mp3", sampleRate, 2);
        for (const size_t channel : {0, 1})
            EXPECT_GT(snr(original, result, 2, channel, leadIn), leastSnr);
    }
}

TEST_F(InstalledAudio, KeepsItsPlaceBesidePictures) {
    for (const auto& [source, file] :
         std::vector<std::pair<std::string, std::string>>{{"stereo.mp3", "in.mp4"},
                                                          {"mono.mp3", "in.mkv"},
                                                          {"stereo.m4a", "in.mp4"},
                                                          {"fec.opus", "in.mkv"}}) {
        SCOPED_TRACE(source);
        ffmpeg("-i " TEST_DATA "/baseline.h264 -i " TEST_DATA "/" + source + " -c copy " + file);
        kelvane("transcode --no-compare -r 88x72@200k -o out " + file);
        EXPECT_EQ(probe("-select_streams a out/88x72.mp4", "stream=codec_name"), "aac\n");
        // A result begins with the pictures.
        const double begin = std::stod(probe("-select_streams v " + file, "stream=start_time"));
        const Samples original = decoded(file, 48000, 1), result = decoded("out/88x72.mp4", 48000, 1);
        ASSERT_GT(std::min(original.size(), result.size()), 16000u);
        double best = 0;
        int shift = 0;
        for (int lag = -3000; lag <= 3000; ++lag) {
            double alike = 0;
            for (size_t i = 4000; i < 12000; ++i)
                alike += original[i] * result[i + static_cast<size_t>(lag)];
            if (alike > best) best = alike, shift = lag;
        }
        EXPECT_NEAR(shift / 48000.0, -begin, 0.001);
    }
}

TEST_F(InstalledAudio, ReadsWavOfAnyRate) {
    ffmpeg("-f lavfi -i sine=frequency=700:sample_rate=37800:duration=0.5 in.wav");
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
    ffmpeg("-f lavfi -i anullsrc=channel_layout=5.1 -t 0.2 -c:a aac six.aac");
    fs::copy(TEST_DATA "/mono.mp3", path("same.wav"));
    expectFailure("audio same.wav -o out.mp3", 2, "OUT must end in");
    expectFailure("audio same.wav -o ./same.wav", 2, "is the input itself");
    expectFailure("audio in.h264 -o out.wav", 1, "no sound.*video h264");
    expectFailure("audio six.aac -o out.wav", 1, "6 channels");
    expectFailure("audio same.wav -o in.h264/out.wav", 1, "cannot write");
}
