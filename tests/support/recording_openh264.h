#pragma once

#include <wels/codec_api.h>

#include <cstdint>
#include <set>
#include <vector>

// What the recorder in front of OpenH264 saw since it was last reset, and what it is told to do.
struct OpenH264Record {
    int created = 0;
    int destroyed = 0;
    int otherCalls = 0; // any method but GetDefaultParams, InitializeExt and EncodeFrame
    SEncParamExt defaults{};
    SEncParamExt param{};
    std::vector<long long> timestamps;

    bool refuseToCreate = false;
    bool refuseParameters = false;
    bool initializesElsewhere = false; // on another thread, with memory that the caller's has no part in
    bool failToEncode = false;
    bool skipPictures = false;
    // Pictures, counted over all encoders; the encoder fails for good, as OpenH264 does.
    std::set<uint64_t> failAt;
    void (*onCall)() = nullptr; // at the beginning of each call, of destroying at its end
};

// Exported by the recording library.
extern "C" __attribute__((visibility("default"))) OpenH264Record* openH264Record();
