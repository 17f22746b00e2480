#include "support/OpenH264.h"

#include "video/OpenH264Loader.h"

#include <dlfcn.h>

#include <filesystem>

namespace {

OpenH264Record& record() {
    // Never closed, and not opened by the name that the loader uses.
    static void* const recorder =
        dlopen(std::filesystem::absolute(COpenLoaderImpl::libraryPath).c_str(), RTLD_NOW);
    if (!recorder) {
        std::fprintf(stderr, "the tests' working directory holds no %s\n", COpenLoaderImpl::libraryPath);
        std::exit(1);
    }
    return *reinterpret_cast<OpenH264Record* (*)()>(dlsym(recorder, "openH264Record"))();
}

} // namespace

WithOpenH264::WithOpenH264() : library(record()) { library = OpenH264Record(); }

void setAsConfigured(SEncParamExt& parameters, const NativeOpenH264Encoder& encoder) {
    parameters.iUsageType = CAMERA_VIDEO_REAL_TIME;
    parameters.iPicWidth = static_cast<int>(encoder.width);
    parameters.iPicHeight = static_cast<int>(encoder.height);
    parameters.iTargetBitrate = parameters.iMaxBitrate = encoder.bitrate;
    parameters.iRCMode = encoder.encMode == 0 ? RC_BITRATE_MODE : RC_QUALITY_MODE;
    parameters.fMaxFrameRate = static_cast<float>(encoder.fps);
    parameters.iTemporalLayerNum = parameters.iSpatialLayerNum = 1;
    parameters.bEnableDenoise = parameters.bEnableBackgroundDetection = parameters.bEnableAdaptiveQuant =
        false;
    parameters.bEnableFrameSkip = parameters.bPrefixNalAddingCtrl = false;
    parameters.uiIntraPeriod = encoder.keyInterval;
    parameters.eSpsPpsIdStrategy = CONSTANT_ID;
    parameters.iLoopFilterDisableIdc = 1;
    parameters.iLtrMarkPeriod = 30;
    parameters.iMultipleThreadIdc = 1;
    parameters.iMaxQp = encoder.maxQp;
    parameters.iMinQp = encoder.minQp;
    parameters.iEntropyCodingModeFlag = encoder.profile;
    SSpatialLayerConfig& layer = parameters.sSpatialLayers[0];
    layer.iVideoWidth = parameters.iPicWidth;
    layer.iVideoHeight = parameters.iPicHeight;
    layer.fFrameRate = parameters.fMaxFrameRate;
    layer.iSpatialBitrate = layer.iMaxSpatialBitrate = encoder.bitrate;
    layer.sSliceArgument.uiSliceMode = SM_SINGLE_SLICE;
    layer.sSliceArgument.uiSliceNum = 0;
}
