#include "support/Media.h"

#include "bridge/Owners.h"
#include "bridge/StartCodes.h"
#include "fuzz/Subjects.h"
#include "support/Output.h"
#include "video/AVCEncoder.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <fstream>
#include <iterator>

Bytes readFile(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    EXPECT_TRUE(file) << path;
    return Bytes(std::istreambuf_iterator<char>(file), {});
}

std::vector<Bytes> accessUnits(const std::string& name) { return streamOf(name).calls; }

int decode(VideoDecoder& decoder, Bytes unit, uint32_t time) {
    unit.shrink_to_fit(); // a read past its end is seen by AddressSanitizer
    return decoder.decode(reinterpret_cast<signed char*>(unit.data()), static_cast<int>(unit.size()), time);
}

Bytes keyPicture(uint32_t width, uint32_t height) {
    NativeOpenH264Encoder encoder;
    encoder.width = width;
    encoder.height = height;
    encoder.bitrate = 100'000;
    Bytes grey(width * height * 3 / 2, static_cast<uint8_t>(100 + width * height % 100));
    printedBy([&] { encoder.open(); });
    EXPECT_EQ(encoder.encode(grey.data(), static_cast<int>(grey.size()), 0), 1) << width << "x" << height;
    return {encoder.output.get(), encoder.output.get() + encoder.outputSize};
}

namespace {

Picture pack(const AVFrame& frame) {
    const auto format = static_cast<AVPixelFormat>(frame.format);
    Picture picture{frame.width, frame.height, frame.format, frame.pts, {}};
    const FrameOwner planar(av_frame_alloc());
    planar->format = AV_PIX_FMT_YUV420P;
    planar->width = frame.width;
    planar->height = frame.height;
    av_frame_get_buffer(planar.get(), 0);
    if (format == AV_PIX_FMT_YUV420P) {
        av_frame_copy(planar.get(), &frame);
    } else {
        const ScalerOwner scaler(sws_getContext(frame.width, frame.height, format, frame.width, frame.height,
                                                AV_PIX_FMT_YUV420P, SWS_BICUBIC, nullptr, nullptr, nullptr));
        sws_scale(scaler.get(), frame.data, frame.linesize, 0, frame.height, planar->data, planar->linesize);
    }
    for (int plane = 0; plane < 3; ++plane) {
        const int shift = plane > 0;
        for (int row = 0; row < frame.height >> shift; ++row) {
            const uint8_t* from = planar->data[plane] + row * planar->linesize[plane];
            picture.i420.insert(picture.i420.end(), from, from + (frame.width >> shift));
        }
    }
    picture.i420.resize(static_cast<size_t>(frame.width * frame.height * 12 / 8));
    return picture;
}

} // namespace

std::vector<Picture> referenceDecode(const std::vector<Bytes>& units) {
    const AVCodec* codec = avcodec_find_decoder(AV_CODEC_ID_H264);
    const CodecContextOwner context(avcodec_alloc_context3(codec));
    const FrameOwner frame(av_frame_alloc());
    EXPECT_EQ(avcodec_open2(context.get(), codec, nullptr), 0);
    std::vector<Picture> pictures;
    const auto receive = [&] {
        while (avcodec_receive_frame(context.get(), frame.get()) == 0)
            pictures.push_back(pack(*frame));
    };
    for (size_t i = 0; i < units.size(); ++i) {
        AVPacket packet;
        av_new_packet(&packet, static_cast<int>(units[i].size()));
        std::memcpy(packet.data, units[i].data(), units[i].size());
        packet.pts = static_cast<int64_t>(i);
        EXPECT_EQ(avcodec_send_packet(context.get(), &packet), 0);
        av_packet_unref(&packet);
        receive();
    }
    avcodec_send_packet(context.get(), nullptr);
    receive();
    return pictures;
}

double psnr(const Bytes& a, const Bytes& b, size_t count) {
    double squares = 0;
    for (size_t i = 0; i < count; ++i)
        squares += std::pow(double(a.at(i)) - double(b.at(i)), 2);
    return 10 * std::log10(255.0 * 255.0 * static_cast<double>(count) / std::max(squares, 1e-9));
}

std::vector<int> nalTypes(const Bytes& accessUnit) {
    std::vector<int> types;
    const uint8_t* const end = accessUnit.data() + accessUnit.size();
    for (const uint8_t* at = behindStartCode(accessUnit.data(), end); at && at < end;
         at = behindStartCode(at, end))
        types.push_back(*at & 31);
    return types;
}
