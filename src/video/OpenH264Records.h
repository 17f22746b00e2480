#pragma once

// The records that OpenH264 and its caller exchange. Version 2.6 appended fields for PSNR to three of them;
// the headers of the build may be of either kind, and so may the library that is opened at run time.

#include <wels/codec_api.h>

#include <cstddef>
#include <optional>
#include <type_traits>

enum class OpenH264Layout { upTo25, since26 };

// Of the records of a version; none where they are not known to be one or the other.
constexpr std::optional<OpenH264Layout> layoutOf(const OpenH264Version& version) {
    const auto isFrom = [&](unsigned major, unsigned minor) {
        return version.uMajor > major || (version.uMajor == major && version.uMinor >= minor);
    };
    if (!isFrom(1, 8) || isFrom(2, 7)) return std::nullopt;
    return isFrom(2, 6) ? OpenH264Layout::since26 : OpenH264Layout::upTo25;
}
constexpr const char* knownOpenH264Versions = "1.8 to 2.6";

// What the caller hands over is here as 2.6 has it, the new fields 0 unless the library gives them a default:
// an older library takes it for its own record, and knows nothing of what lies behind.
template <class Record>
constexpr bool hasPsnr = requires(Record record) {
    record.bPsnrY;
};
template <class Record>
struct WithPsnr : Record {
    bool wantsPsnr[3]; // of Y, U, V
};
template <class Record>
using Since26 = std::conditional_t<hasPsnr<Record>, Record, WithPsnr<Record>>;
using OpenH264Parameters = Since26<SEncParamExt>;
using OpenH264Picture = Since26<SSourcePicture>;

// What the library hands over has to be read as it wrote it.
struct LayerUpTo25 {
    unsigned char uiTemporalId;
    unsigned char uiSpatialId;
    unsigned char uiQualityId;
    EVideoFrameType eFrameType;
    unsigned char uiLayerType;
    int iSubSeqId;
    int iNalCount;
    int* pNalLengthInByte; // `iNalCount` sizes in bytes
    unsigned char* pBsBuf;
};
struct LayerSince26 : LayerUpTo25 {
    float rPsnr[3];
};
template <class Layer>
struct OpenH264Frame {
    int iLayerNum;
    Layer sLayerInfo[MAX_LAYER_NUM_OF_FRAME];
    EVideoFrameType eFrameType;
    int iFrameSizeInBytes;
    long long uiTimeStamp;

    // As the methods of ISVCEncoder take it, whose headers may be of the other layout.
    SFrameBSInfo* record() { return reinterpret_cast<SFrameBSInfo*>(this); }
};

static_assert(sizeof(OpenH264Parameters) == 924 && sizeof(OpenH264Picture) == 80 &&
              sizeof(OpenH264Frame<LayerUpTo25>) == 5144 && sizeof(OpenH264Frame<LayerSince26>) == 7192);
static_assert(offsetof(SEncParamExt, iIdrBitrateRatio) == 916 && offsetof(SSourcePicture, uiTimeStamp) == 64,
              "the headers have fields in front of those of 2.6");
template <class Layer>
constexpr bool isThatOfTheHeaders = sizeof(Layer) == sizeof(SLayerBSInfo) &&
                                    sizeof(OpenH264Frame<Layer>) == sizeof(SFrameBSInfo);
static_assert(isThatOfTheHeaders<LayerUpTo25> || isThatOfTheHeaders<LayerSince26>,
              "the headers are of a version with other records");
static_assert(offsetof(LayerUpTo25, iNalCount) == offsetof(SLayerBSInfo, iNalCount) &&
              offsetof(LayerUpTo25, pNalLengthInByte) == offsetof(SLayerBSInfo, pNalLengthInByte) &&
              offsetof(LayerUpTo25, pBsBuf) == offsetof(SLayerBSInfo, pBsBuf));
