#include "support/Sound.h"

#include "bridge/Owners.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>

Samples referenceSound(AVCodecID codecId, const Script& stream, int sampleRate, int channels) {
    const AVCodec* codec = avcodec_find_decoder(codecId);
    const CodecContextOwner context(avcodec_alloc_context3(codec));
    context->sample_rate = sampleRate;
    context->channels = channels;
    context->extradata_size = static_cast<int>(stream.config.size());
    context->extradata =
        static_cast<uint8_t*>(av_mallocz(stream.config.size() + AV_INPUT_BUFFER_PADDING_SIZE));
    std::copy(stream.config.begin(), stream.config.end(), context->extradata);
    EXPECT_EQ(avcodec_open2(context.get(), codec, nullptr), 0);
    const FrameOwner frame(av_frame_alloc());
    Samples samples;
    for (const Bytes& bytes : stream.calls) {
        AVPacket packet;
        av_new_packet(&packet, static_cast<int>(bytes.size()));
        std::copy(bytes.begin(), bytes.end(), packet.data);
        EXPECT_EQ(avcodec_send_packet(context.get(), &packet), 0);
        av_packet_unref(&packet);
        EXPECT_EQ(avcodec_receive_frame(context.get(), frame.get()), 0);
        const bool floating = frame->format == AV_SAMPLE_FMT_FLTP;
        EXPECT_TRUE(floating || frame->format == AV_SAMPLE_FMT_S16P);
        for (int i = 0; i < frame->nb_samples; ++i)
            for (int channel = 0; channel < channels; ++channel) {
                const uint8_t* plane = frame->extended_data[channel];
                const float value = floating ? reinterpret_cast<const float*>(plane)[i] * 32768
                                             : reinterpret_cast<const int16_t*>(plane)[i];
                samples.push_back(static_cast<int16_t>(std::lrint(std::clamp(value, -32768.f, 32767.f))));
            }
    }
    return samples;
}

Samples testSound(int channels, int sampleRate, int samples) {
    Samples sound;
    for (int i = 0; i < samples; ++i) {
        const double t = 2 * M_PI * i / sampleRate;
        const double left = 8000 * std::sin(440 * t) + 3000 * std::sin(2345 * t);
        const double right = 6000 * std::sin(1000 * t) * std::sin(2 * t) + 4000 * std::sin(610 * t);
        sound.push_back(static_cast<int16_t>(left));
        if (channels == 2) sound.push_back(static_cast<int16_t>(right));
    }
    return sound;
}

Samples samplesOf(const Bytes& pcm) {
    Samples samples(pcm.size() / 2);
    if (!samples.empty()) std::memcpy(samples.data(), pcm.data(), samples.size() * 2);
    return samples;
}

Bytes pcmBlock(const Samples& sound, size_t number, size_t samplesPerBlock) {
    Bytes pcm(2 * samplesPerBlock);
    std::memcpy(pcm.data(), &sound.at(number * samplesPerBlock), pcm.size());
    return pcm;
}

double snr(const Samples& original, const Samples& decoded, size_t channels, size_t channel, size_t delay) {
    constexpr size_t margin = 2048;
    double signal = 0, noise = 0;
    for (size_t i = margin; (i + delay + margin) * channels < decoded.size(); ++i) {
        const double sample = original.at(i * channels + channel);
        signal += sample * sample;
        noise += std::pow(sample - decoded.at((i + delay) * channels + channel), 2);
    }
    EXPECT_GT(signal, 0);
    return 10 * std::log10(signal / std::max(noise, 1e-9));
}

int largestDifference(const Samples& a, const Samples& b) {
    EXPECT_EQ(a.size(), b.size());
    int largest = 0;
    for (size_t i = 0; i < std::min(a.size(), b.size()); ++i)
        largest = std::max(largest, std::abs(a[i] - b[i]));
    return largest;
}

Bytes written(jbyteArray array, int size) {
    Bytes bytes = bytesOf(array);
    const auto count = std::min(static_cast<size_t>(std::max(size, 0)), bytes.size());
    const Bytes rest(bytes.begin() + static_cast<std::ptrdiff_t>(count), bytes.end());
    EXPECT_EQ(rest, Bytes(rest.size(), 0xEE));
    bytes.resize(count);
    return bytes;
}

int comparedWithFFmpeg(AVCodecID codec, DecodeMethod method, jlong handle, const Script& stream,
                       int sampleRate, int channels) {
    const Samples expected = referenceSound(codec, stream, sampleRate, channels);
    const size_t blockSamples = expected.size() / stream.calls.size();
    const int perChannel = static_cast<int>(blockSamples) / channels;
    const int result = codec == AV_CODEC_ID_AAC ? perChannel : 0;
    int difference = 0;
    for (size_t i = 0; i + 1 < stream.calls.size(); ++i) {
        const LocalFrame references;
        Bytes input = stream.calls[i];
        // What lies behind a packet, junk or another packet, is neither decoded nor taken for the next one.
        const Bytes& other = stream.calls[0];
        if (i % 5 == 3) input.insert(input.end(), other.begin(), other.end());
        for (size_t junk = i % 3 * 150; junk > 0; --junk)
            input.push_back(static_cast<uint8_t>(junk * junk * (i + 3)));
        jbyteArray packet = javaArray(input), info = javaArray(5);
        jbyteArray output = javaArray(static_cast<int>(2 * blockSamples));
        const auto decode = [&](jbyteArray in, jbyteArray about, jbyteArray out, jlong engine) {
            return method(javaEnv(), nullptr, in, about, out, engine);
        };
        EXPECT_EQ(decode(nullptr, info, output, handle), 0);
        EXPECT_EQ(decode(packet, nullptr, output, handle), 0);
        EXPECT_EQ(decode(packet, info, nullptr, handle), 0);
        EXPECT_EQ(decode(packet, info, output, 0), 0);
        EXPECT_EQ(decode(javaArray(0), info, output, handle), 0);
        EXPECT_EQ(decode(javaArray(400, 0x5A), info, output, handle), 0);
        written(info, 0);
        EXPECT_EQ(decode(packet, info, output, handle), result);
        const auto high = static_cast<uint8_t>(perChannel >> 8), low = static_cast<uint8_t>(perChannel);
        EXPECT_EQ(bytesOf(info), (Bytes{1, 0, 0, high, low}));
        const Samples block = samplesOf(pcmBlock(expected, i, blockSamples));
        difference = std::max(difference, largestDifference(samplesOf(bytesOf(output)), block));
    }
    const LocalFrame references;
    method(javaEnv(), nullptr, javaArray(stream.calls.back()), javaArray(4),
           javaArray(static_cast<int>(2 * blockSamples)), handle);
    EXPECT_EQ(takeException(), "java.lang.ArrayIndexOutOfBoundsException");
    return difference;
}
