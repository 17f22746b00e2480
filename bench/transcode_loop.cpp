// The measure for the transcoder: the same FFmpeg, libswscale and OpenH264 calls in a bare loop, with nothing
// around them. Usage: transcode_loop STREAM.h264 LIBOPENH264.so ROUNDS WIDTHxHEIGHT@BITRATE...

#include "bridge/Owners.h"

#include <wels/codec_api.h>

extern "C" {
#include <libavutil/imgutils.h>
}

#include <sys/resource.h>

#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>
#include <vector>

#pragma GCC diagnostic ignored "-Wdeprecated-declarations"

namespace {

struct Rendition {
    int width, height, bitrate;
    ISVCEncoder* encoder = nullptr;
    ImageFrameOwner frame;
    ScalerOwner scaler;
    long long bytes = 0;
};

double cpuSeconds() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    const auto seconds = [](const timeval& time) {
        return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
    };
    return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

// Cuts at access-unit delimiters.
std::vector<std::vector<uint8_t>> readAccessUnits(const char* path) {
    std::ifstream file(path, std::ios::binary);
    const std::vector<uint8_t> stream(std::istreambuf_iterator<char>(file), {});
    constexpr uint8_t delimiter[] = {0, 0, 0, 1, 9};
    std::vector<std::vector<uint8_t>> units;
    size_t start = 0;
    for (size_t at = 1; at <= stream.size(); ++at) {
        const bool end = at == stream.size();
        if (!end && (at + 5 > stream.size() || std::memcmp(&stream[at], delimiter, 5) != 0)) continue;
        units.emplace_back(stream.begin() + static_cast<ptrdiff_t>(start),
                           stream.begin() + static_cast<ptrdiff_t>(at));
        start = at;
    }
    return units;
}

void open(Rendition& rendition, int (*createEncoder)(ISVCEncoder**)) {
    createEncoder(&rendition.encoder);
    SEncParamExt param{};
    rendition.encoder->GetDefaultParams(&param);
    param.iUsageType = CAMERA_VIDEO_REAL_TIME;
    param.fMaxFrameRate = 30;
    param.iPicWidth = rendition.width;
    param.iPicHeight = rendition.height;
    param.iTargetBitrate = param.iMaxBitrate = rendition.bitrate;
    param.iRCMode = RC_BITRATE_MODE;
    param.iTemporalLayerNum = param.iSpatialLayerNum = 1;
    param.bEnableDenoise = param.bEnableBackgroundDetection = param.bEnableAdaptiveQuant = false;
    param.bEnableFrameSkip = param.bPrefixNalAddingCtrl = false;
    param.uiIntraPeriod = 60;
    param.eSpsPpsIdStrategy = CONSTANT_ID;
    param.iLoopFilterDisableIdc = 1;
    param.iLtrMarkPeriod = 30;
    param.iMultipleThreadIdc = 1;
    SSpatialLayerConfig& layer = param.sSpatialLayers[0];
    layer.iVideoWidth = rendition.width;
    layer.iVideoHeight = rendition.height;
    layer.fFrameRate = 30;
    layer.iSpatialBitrate = layer.iMaxSpatialBitrate = rendition.bitrate;
    layer.sSliceArgument.uiSliceMode = SM_SINGLE_SLICE;
    rendition.encoder->InitializeExt(&param);
    rendition.frame.reset(av_frame_alloc());
    av_image_alloc(rendition.frame->data, rendition.frame->linesize, rendition.width, rendition.height,
                   AV_PIX_FMT_YUV420P, 32);
}

void encode(Rendition& rendition, const AVFrame& picture) {
    AVFrame& scaled = *rendition.frame;
    if (!rendition.scaler)
        rendition.scaler.reset(sws_getContext(picture.width, picture.height, AV_PIX_FMT_YUV420P,
                                              rendition.width, rendition.height, AV_PIX_FMT_YUV420P, 0,
                                              nullptr, nullptr, nullptr));
    sws_scale(rendition.scaler.get(), picture.data, picture.linesize, 0, picture.height, scaled.data,
              scaled.linesize);
    SSourcePicture source{};
    source.iColorFormat = videoFormatI420;
    source.iPicWidth = rendition.width;
    source.iPicHeight = rendition.height;
    source.uiTimeStamp = picture.pkt_pts / 1000;
    for (int plane = 0; plane < 3; ++plane) {
        source.pData[plane] = scaled.data[plane];
        source.iStride[plane] = scaled.linesize[plane];
    }
    SFrameBSInfo encoded{};
    if (rendition.encoder->EncodeFrame(&source, &encoded) == 0) rendition.bytes += encoded.iFrameSizeInBytes;
}

} // namespace

int main(int argc, char** argv) {
    if (argc < 5) return 2;
    auto units = readAccessUnits(argv[1]);
    void* library = dlopen(argv[2], RTLD_NOW);
    const int rounds = std::atoi(argv[3]);
    if (units.empty() || !library || rounds < 1) return 1;
    const auto createEncoder =
        reinterpret_cast<int (*)(ISVCEncoder**)>(dlsym(library, "WelsCreateSVCEncoder"));
    const auto destroyEncoder =
        reinterpret_cast<void (*)(ISVCEncoder*)>(dlsym(library, "WelsDestroySVCEncoder"));
    av_log_set_level(AV_LOG_QUIET);

    for (int round = 0; round < rounds; ++round) {
        const double before = cpuSeconds();
        std::vector<Rendition> renditions;
        for (int i = 4; i < argc; ++i) {
            Rendition& rendition = renditions.emplace_back();
            if (std::sscanf(argv[i], "%dx%d@%d", &rendition.width, &rendition.height, &rendition.bitrate) !=
                3)
                return 2;
            open(rendition, createEncoder);
        }
        const AVCodec* codec = avcodec_find_decoder(AV_CODEC_ID_H264);
        const CodecContextOwner context(avcodec_alloc_context3(codec));
        context->flags2 |= AV_CODEC_FLAG2_CHUNKS;
        context->flags |= AV_CODEC_FLAG_TRUNCATED;
        avcodec_open2(context.get(), codec, nullptr);
        const FrameOwner picture(av_frame_alloc());
        int pictures = 0;
        int64_t time = 0;
        for (const std::vector<uint8_t>& unit : units) {
            AVPacket packet;
            if (av_new_packet(&packet, static_cast<int>(unit.size())) < 0) return 1;
            std::memcpy(packet.data, unit.data(), unit.size());
            packet.pts = 33 * 1000 * time++;
            int got = 0;
            avcodec_decode_video2(context.get(), picture.get(), &got, &packet);
            av_packet_unref(&packet);
            if (!got) continue;
            ++pictures;
            for (Rendition& rendition : renditions)
                encode(rendition, *picture);
        }
        long long bytes = 0;
        for (Rendition& rendition : renditions) {
            destroyEncoder(rendition.encoder);
            bytes += rendition.bytes;
        }
        std::printf("bare: %d pictures, %lld bytes, %.3f s of CPU\n", pictures, bytes,
                    cpuSeconds() - before);
    }
}
