#include "bridge/Owners.h"
#include "com_kelvane_media_transform_codec_PcmResampler.h"
#include "support/Sound.h"

extern "C" {
#include <libavutil/opt.h>
}

#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <cmath>

#define Resampler(name) Java_com_kelvane_media_transform_codec_PcmResampler_##name

namespace {

// Has a call fill an array of the size that it asks for.
template <class Call>
Samples filled(int channels, Call&& call) {
    const LocalFrame references;
    const int room = -call(javaArray(0));
    if (room <= 0) return {};
    jbyteArray output = javaArray(room);
    EXPECT_EQ(call(javaArray(room - 1)), -room) << "and nothing is lost";
    return samplesOf(written(output, call(output) * channels * 2));
}

Samples resampled(jlong handle, int from, int to, const Samples& sound) {
    Samples result;
    const auto append = [&](const Samples& part) { result.insert(result.end(), part.begin(), part.end()); };
    size_t at = 0;
    for (size_t piece = 1; at < sound.size(); piece = piece * 7 % 3001) {
        const size_t size = std::min(piece * static_cast<size_t>(from), sound.size() - at);
        const Samples part(sound.begin() + static_cast<long>(at),
                           sound.begin() + static_cast<long>(at + size));
        Bytes pcm = pcmBlock(part, 0, size);
        if (from == 2) pcm.push_back(0x55); // no whole sample
        append(filled(to, [&](jbyteArray output) {
            return Resampler(convert)(javaEnv(), nullptr, javaArray(pcm), output, handle);
        }));
        at += size;
    }
    append(
        filled(to, [&](jbyteArray output) { return Resampler(drain)(javaEnv(), nullptr, output, handle); }));
    return result;
}

// By libswresample's own calls, the whole sound at once.
Samples reference(int from, int fromRate, int to, int toRate, const Samples& sound) {
    const auto layout = [](int channels) { return channels == 1 ? AV_CH_LAYOUT_MONO : AV_CH_LAYOUT_STEREO; };
    const ResamplerOwner swr(swr_alloc_set_opts(nullptr, layout(to), AV_SAMPLE_FMT_S16, toRate, layout(from),
                                                AV_SAMPLE_FMT_S16, fromRate, 0, nullptr));
    av_opt_set_sample_fmt(swr.get(), "internal_sample_fmt", AV_SAMPLE_FMT_FLTP, 0);
    const double weights[] = {from < to ? 1 : 0.5, from < to ? 1 : 0.5};
    if (from != to) swr_set_matrix(swr.get(), weights, from);
    EXPECT_EQ(swr_init(swr.get()), 0);
    const int count = static_cast<int>(sound.size()) / from;
    Samples result(static_cast<size_t>(swr_get_out_samples(swr.get(), count) + 200) *
                   static_cast<size_t>(to));
    auto* out = reinterpret_cast<uint8_t*>(result.data());
    const auto* in = reinterpret_cast<const uint8_t*>(sound.data());
    int made = swr_convert(swr.get(), &out, static_cast<int>(result.size()) / to, &in, count);
    out += made * to * 2;
    made += swr_convert(swr.get(), &out, static_cast<int>(result.size()) / to - made, nullptr, 0);
    result.resize(static_cast<size_t>(made * to));
    return result;
}

} // namespace

TEST(Resampler, SamplesEqualFFmpegsOwnInPiecesOfAnyLength) {
    const struct {
        int from, fromRate, to, toRate, samples;
    } cases[] = {
        {2, 44100, 2, 48000, 44100 * 60 + 17}, {1, 48000, 1, 44100, 500'001}, {1, 44100, 2, 48000, 300'000},
        {2, 48000, 1, 8000, 300'000},          {2, 22050, 2, 48000, 22051},   {1, 7350, 2, 192000, 10'000},
        {2, 44101, 1, 47999, 100'000},         {1, 16000, 2, 16000, 16000},   {2, 48000, 2, 48000, 5000}};
    for (const auto& [from, fromRate, to, toRate, samples] : cases) {
        SCOPED_TRACE(testing::Message() << fromRate << " Hz, " << from << " to " << toRate << " Hz, " << to);
        const Samples sound = testSound(from, fromRate, samples);
        const Samples expected = reference(from, fromRate, to, toRate, sound);
        const jlong handle = Resampler(open)(javaEnv(), nullptr, from, fromRate, to, toRate);
        ASSERT_GT(handle, 0);
        EXPECT_NEAR(static_cast<double>(expected.size()) / to,
                    static_cast<double>(samples) * toRate / fromRate, 1);
        for (int stream = 0; stream < 2; ++stream) // the second behind the end of the first
            EXPECT_EQ(resampled(handle, from, to, sound), expected);
        // Both begin at the same time, at the same level.
        const Samples ideal = testSound(from, toRate, static_cast<int>(expected.size()) / to);
        Samples mixed(expected.size());
        for (size_t i = 0; i < mixed.size(); ++i)
            mixed[i] = from == to ? ideal[i]
                       : to == 2  ? ideal[i / 2]
                                  : static_cast<int16_t>((ideal[2 * i] + ideal[2 * i + 1]) / 2);
        EXPECT_GT(snr(mixed, expected, static_cast<size_t>(to), 0, 0), 60);
        Resampler(close)(javaEnv(), nullptr, handle);
    }
    constexpr int refused[][4] = {{0, 48000, 2, 48000},  {2, 48000, 3, 48000},
                                  {2, 0, 2, 48000},      {2, 7349, 2, 48000},
                                  {2, 48000, 2, 192001}, {INT_MIN, INT_MIN, INT_MAX, INT_MAX}};
    for (const auto& [from, fromRate, to, toRate] : refused)
        EXPECT_EQ(Resampler(open)(javaEnv(), nullptr, from, fromRate, to, toRate), 0);
}
