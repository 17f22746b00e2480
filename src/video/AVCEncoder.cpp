#include "video/AVCEncoder.h"

#include "bridge/Exceptions.h"
#include "bridge/JavaCall.h"
#include "bridge/Log.h"
#include "bridge/Registries.h"
#include "com_kelvane_media_transform_codec_AVCEncoder.h"
#include "video/BitstreamRoom.h"
#include "video/OpenH264Loader.h"

#include <algorithm>
#include <cmath>
#include <cstring>

static COpenLoaderImpl loader;

namespace {

constexpr Log say("OpenH264");

uint32_t picturesInFourSeconds(float rate) { return static_cast<uint32_t>(std::lround(4 * rate)); }

// What OpenH264 takes while it runs.
float allowedRate(float picturesPerSecond) { return std::clamp(picturesPerSecond, 1.0F, 60.0F); }

} // namespace

void OpenH264EncoderDeleter::operator()(ISVCEncoder* encoder) const {
    EncoderLibFunctions library;
    loader.GetLibFunctions(&library);
    completes([&] { library.destroyEncoder(encoder); });
    --loader.liveEncoders;
}

void NativeOpenH264Encoder::open() {
    if (loader.state == 0 && loader.LoadLib() == 0) return;
    EncoderLibFunctions library;
    // A load that another thread had under way may have failed.
    if (loader.GetLibFunctions(&library) != 2) return;
    ISVCEncoder* created = nullptr;
    if (!completes([&] { library.createEncoder(&created); }) || !created) {
        status = 1;
        if (!renewed) say.warning("could not open noh264\n");
        return;
    }
    ++loader.liveEncoders;
    encoder.reset(created);
    layout = library.layout;
    status = 0;
    chooseTrace();

    if (fps == 0 || fps > 60) fps = 30;
    if (steeredRate > 0) steeredRate = allowedRate(steeredRate);
    if (keyInterval > 480) keyInterval = fps * 8;
    if (keyInterval == 0) {
        keyInterval = steeredRate > 0 ? picturesInFourSeconds(steeredRate) : fps * 4;
        keysBySeconds = true;
    }

    const bool hasDefaults = completes([&] { encoder->GetDefaultParams(&param); });
    if (maxQp == 0) maxQp = param.iMaxQp;
    if (minQp == 0) minQp = param.iMinQp;
    if (debug) say.debug("qp  %d -%d \n", minQp, maxQp);

    param.iUsageType = CAMERA_VIDEO_REAL_TIME;
    param.fMaxFrameRate = steeredRate > 0 ? steeredRate : static_cast<float>(fps);
    param.iPicWidth = static_cast<int>(width);
    param.iPicHeight = static_cast<int>(height);
    param.iTargetBitrate = bitrate;
    param.iMaxBitrate = bitrate;
    param.iRCMode = encMode == 0 ? RC_BITRATE_MODE : RC_QUALITY_MODE;
    param.iTemporalLayerNum = 1;
    param.iSpatialLayerNum = 1;
    param.bEnableDenoise = false;
    param.bEnableBackgroundDetection = false;
    param.bEnableAdaptiveQuant = false;
    param.bEnableFrameSkip = false;
    param.uiIntraPeriod = keyInterval;
    param.eSpsPpsIdStrategy = CONSTANT_ID;
    param.bPrefixNalAddingCtrl = false;
    param.iLoopFilterDisableIdc = 1; // the deblocking filter is off
    param.iLtrMarkPeriod = 30;
    param.iMultipleThreadIdc = 1; // no threads in the encoder
    param.iMaxQp = maxQp;
    param.iMinQp = minQp;
    param.iEntropyCodingModeFlag = profile;
    SSpatialLayerConfig& layer = param.sSpatialLayers[0];
    layer.iVideoWidth = param.iPicWidth;
    layer.iVideoHeight = param.iPicHeight;
    layer.fFrameRate = param.fMaxFrameRate;
    layer.iSpatialBitrate = bitrate;
    layer.iMaxSpatialBitrate = bitrate;
    layer.sSliceArgument.uiSliceMode = SM_SINGLE_SLICE;
    layer.sSliceArgument.uiSliceNum = 0;

    const auto initialize = [&] { return resultOr(-1, [&] { return encoder->InitializeExt(&param); }); };
    if (!hasDefaults) {
        status = -1;
    } else if (profile == 0) {
        if (initialize() != 0) status = -1;
    } else {
        const BitstreamRoom room(reinterpret_cast<const void*>(library.createEncoder), width, height);
        if (initialize() != 0) {
            status = -1;
        } else if (!room.given()) {
            // Noise would have it write past its buffer.
            status = -1;
            encoder.reset();
        }
    }
    if (debug && status == 0) say.debug("opened and configured h264 encoder.\n");
    if (debug && status != 0) say.warning("could not configure noh264 codec.\n");
}

// OpenH264 warns of its settings at each opening and reports each picture that fails; on standard error,
// unless something else was chosen.
void NativeOpenH264Encoder::chooseTrace() {
    if (renewed || Log::destination() == Log::Destination::discarded) {
        int level = WELS_LOG_QUIET;
        set(ENCODER_OPTION_TRACE_LEVEL, &level);
    } else if (Log::destination() == Log::Destination::kept) {
        WelsTraceCallback callback = [](void*, int level, const char* text) {
            (level == WELS_LOG_ERROR ? say.error : say.complaint)("%s\n", text);
        };
        set(ENCODER_OPTION_TRACE_CALLBACK, &callback);
    }
}

int NativeOpenH264Encoder::encode(unsigned char* picture, int size, unsigned int timestamp) {
    if (!encoder) return 0;
    const uint32_t lumaSize = width * height;
    const uint32_t expectedSize = lumaSize * 3 / 2;
    if (debug && expectedSize != static_cast<uint32_t>(size))
        say.warning("err size_in %d  %d\n", static_cast<int>(expectedSize), size);
    output.reset();
    outputSize = 0;
    // In 64 bits: the 32-bit size of an absurd picture wraps to a small one.
    if (size < 0 || static_cast<uint64_t>(size) < uint64_t{width} * height * 3 / 2) return 0;
    uint8_t* const planes[] = {picture, picture + lumaSize, picture + lumaSize + lumaSize / 4};
    const auto chromaStride = static_cast<int>(width >> 1);
    const int strides[] = {static_cast<int>(width), chromaStride, chromaStride};
    return encode(planes, strides, timestamp);
}

int NativeOpenH264Encoder::encode(uint8_t* const planes[3], const int strides[3], unsigned int timestamp) {
    failure = -1;
    if (!encoder) return 0;
    output.reset();
    outputSize = 0;
    OpenH264Picture source{};
    source.iColorFormat = videoFormatI420;
    std::copy_n(planes, 3, source.pData);
    std::copy_n(strides, 3, source.iStride);
    source.iPicWidth = static_cast<int>(width);
    source.iPicHeight = static_cast<int>(height);
    source.uiTimeStamp = timestamp;
    return layout == OpenH264Layout::since26 ? encodeInto<OpenH264Frame<LayerSince26>>(source)
                                             : encodeInto<OpenH264Frame<LayerUpTo25>>(source);
}

template <class Frame>
int NativeOpenH264Encoder::encodeInto(const OpenH264Picture& source) {
    Frame encoded{};
    failure = resultOr(-1, [&] { return encoder->EncodeFrame(&source, encoded.record()); });
    if (failure != 0) {
        if (debug) say.warning("error \n");
        return 0;
    }
    if (encoded.eFrameType == videoFrameTypeSkip || encoded.iFrameSizeInBytes <= 0) {
        if (debug) say.debug("skip\n");
        return 0;
    }

    const int layers = std::min<int>(encoded.iLayerNum, MAX_LAYER_NUM_OF_FRAME);
    int layerSizes[MAX_LAYER_NUM_OF_FRAME] = {};
    int total = 0;
    for (int i = 0; i < layers; ++i) {
        const auto& layer = encoded.sLayerInfo[i];
        for (int nal = 0; nal < layer.iNalCount; ++nal)
            layerSizes[i] += layer.pNalLengthInByte[nal];
        total += layerSizes[i];
    }
    if (total <= 0) {
        if (debug) say.warning("nosize \n");
        return 0;
    }
    output = mallocBuffer(static_cast<size_t>(total));
    if (!output) {
        failure = -1;
        return 0;
    }
    ++frameCount;
    pictureType = encoded.eFrameType;
    outputSize = total;
    if (debug) say.debug("output_size: %d count: %d\n", outputSize, static_cast<int>(frameCount));
    uint8_t* out = output.get();
    for (int i = 0; i < layers; ++i) {
        std::memcpy(out, encoded.sLayerInfo[i].pBsBuf, static_cast<size_t>(layerSizes[i]));
        out += layerSizes[i];
    }
    return 1;
}

int NativeOpenH264Encoder::requestKey() {
    return isOpen() && resultOr(-1, [&] { return encoder->ForceIntraFrame(true); }) == 0;
}

bool NativeOpenH264Encoder::set(ENCODER_OPTION option, void* value) {
    return resultOr(-1, [&] { return encoder->SetOption(option, value); }) == 0;
}

bool NativeOpenH264Encoder::setBitrate(int32_t bitsPerSecond) {
    const bool rises = bitsPerSecond > bitrate;
    bitrate = bitsPerSecond;
    if (!isOpen()) return true;
    // Of the layer: for all layers together, OpenH264 leaves the maximum as it was and rounds to 24 bits. It
    // refuses a maximum below the target, and has taken it over all the same.
    SBitrateInfo layer{SPATIAL_LAYER_0, bitsPerSecond};
    const bool first = set(rises ? ENCODER_OPTION_MAX_BITRATE : ENCODER_OPTION_BITRATE, &layer);
    const bool second = set(rises ? ENCODER_OPTION_BITRATE : ENCODER_OPTION_MAX_BITRATE, &layer);
    return first && second;
}

bool NativeOpenH264Encoder::setFrameRate(float picturesPerSecond) {
    steeredRate = allowedRate(picturesPerSecond);
    if (!isOpen()) return true;
    bool taken = set(ENCODER_OPTION_FRAME_RATE, &steeredRate);
    if (keysBySeconds) {
        keyInterval = picturesInFourSeconds(steeredRate);
        taken &= set(ENCODER_OPTION_IDR_INTERVAL, &keyInterval);
    }
    return taken;
}

int NativeOpenH264Encoder::averageQuantiser() const {
    if (!isOpen()) return 0;
    // Versions differ in what comes last in the record.
    struct {
        SEncoderStatistics known{};
        uint64_t room[8] = {};
    } statistics;
    const auto ask = [&] { return encoder->GetOption(ENCODER_OPTION_GET_STATISTICS, &statistics.known); };
    return resultOr(-1, ask) == 0 ? static_cast<int>(statistics.known.uiAverageFrameQP) : 0;
}

bool NativeOpenH264Encoder::renew() {
    close();
    outputSize = 0;
    status = 1;
    renewed = true;
    open();
    return status == 0;
}

void NativeOpenH264Encoder::close() {
    encoder.reset();
    output.reset();
}

JNIEXPORT jlong JNICALL Java_com_kelvane_media_transform_codec_AVCEncoder_open(JNIEnv*, jclass, jint width,
                                                                               jint height, jint fps,
                                                                               jint keyInterval,
                                                                               jint bitrate) {
    loader.LoadLib();
    NativeOpenH264Encoder* encoder = avc_opn_enc_ctx.NewCodec();
    if (!encoder) return 0;
    encoder->width = static_cast<uint32_t>(width);
    encoder->height = static_cast<uint32_t>(height);
    encoder->fps = static_cast<uint32_t>(fps);
    encoder->keyInterval = static_cast<uint32_t>(keyInterval);
    encoder->bitrate = bitrate;
    encoder->open();
    return encoder->handle;
}

JNIEXPORT jint JNICALL Java_com_kelvane_media_transform_codec_AVCEncoder_encode(JNIEnv* env, jclass,
                                                                                jbyteArray picture,
                                                                                jbyteArray, jlong handle) {
    NativeOpenH264Encoder* encoder = avc_opn_enc_ctx.GetCoder(handle);
    if (!encoder || !picture) return 0;
    const ArrayCopy copy = JavaCall(env).copyIn(picture);
    if (copy) encoder->encode(copy.as<unsigned char>(), copy.size, 0);
    return 0;
}

JNIEXPORT jint JNICALL Java_com_kelvane_media_transform_codec_AVCEncoder_loadLibrary(JNIEnv* env, jclass,
                                                                                     jstring path) {
    if (!path) return 0;
    JavaCall java(env);
    const JavaPath file(java, path);
    return file.get() && loader.LoadLibFrom(file.get()) == 2;
}

JNIEXPORT jstring JNICALL Java_com_kelvane_media_transform_codec_AVCEncoder_problem(JNIEnv* env, jclass,
                                                                                    jstring path) {
    if (!path) return nullptr;
    JavaCall java(env);
    const JavaString file(java, path);
    char text[512];
    return file.get() && findOpenH264Problem(file.get(), text, sizeof text) ? java.newAscii(text) : nullptr;
}

JNIEXPORT void JNICALL Java_com_kelvane_media_transform_codec_AVCEncoder_close(JNIEnv*, jclass,
                                                                               jlong handle) {
    if (closeCodec(avc_opn_enc_ctx, handle)) say.debug("AVC encoder codec closed\n");
}
