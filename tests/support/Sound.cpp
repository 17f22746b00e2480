#include "support/Sound.h"

#include "bridge/Owners.h"

extern "C" {
#include <libavformat/avformat.h>
}

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>

SoundStream soundStream(const std::string& name) {
    AVFormatContext* file = nullptr;
    const int opened = avformat_open_input(&file, (TEST_DATA "/" + name).c_str(), nullptr, nullptr);
    EXPECT_EQ(opened, 0) << name;
    SoundStream stream;
    if (opened != 0) return stream;
    const AVCodecParameters& codec = *file->streams[0]->codecpar;
    stream.config.assign(codec.extradata, codec.extradata + codec.extradata_size);
    AVPacket packet;
    while (av_read_frame(file, &packet) == 0) {
        stream.packets.emplace_back(packet.data, packet.data + packet.size);
        av_packet_unref(&packet);
    }
    avformat_close_input(&file);
    return stream;
}

std::vector<Samples> referenceSound(AVCodecID codecId, const SoundStream& stream, int sampleRate,
                                    int channels) {
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
    std::vector<Samples> decoded;
    for (const Bytes& bytes : stream.packets) {
        AVPacket packet;
        av_new_packet(&packet, static_cast<int>(bytes.size()));
        std::copy(bytes.begin(), bytes.end(), packet.data);
        EXPECT_EQ(avcodec_send_packet(context.get(), &packet), 0);
        av_packet_unref(&packet);
        Samples samples;
        while (avcodec_receive_frame(context.get(), frame.get()) == 0)
            for (int i = 0; i < frame->nb_samples; ++i)
                for (int channel = 0; channel < channels; ++channel) {
                    const uint8_t* plane = frame->extended_data[channel];
                    if (frame->format == AV_SAMPLE_FMT_S16P) {
                        samples.push_back(reinterpret_cast<const int16_t*>(plane)[i]);
                    } else {
                        EXPECT_EQ(frame->format, AV_SAMPLE_FMT_FLTP);
                        const float value = reinterpret_cast<const float*>(plane)[i] * 32768;
                        samples.push_back(
                            static_cast<int16_t>(std::lrint(std::clamp(value, -32768.f, 32767.f))));
                    }
                }
        decoded.push_back(samples);
    }
    return decoded;
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

Bytes bytesOf(const Samples& samples) {
    Bytes pcm(samples.size() * 2);
    if (!samples.empty()) std::memcpy(pcm.data(), samples.data(), pcm.size());
    return pcm;
}

Samples samplesOf(const Bytes& pcm) {
    Samples samples(pcm.size() / 2);
    if (!samples.empty()) std::memcpy(samples.data(), pcm.data(), samples.size() * 2);
    return samples;
}

Bytes pcmBlock(const Samples& sound, size_t number, size_t samplesPerBlock) {
    const auto start = sound.begin() + static_cast<std::ptrdiff_t>(number * samplesPerBlock);
    return bytesOf(Samples(start, start + static_cast<std::ptrdiff_t>(samplesPerBlock)));
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
