#include "support/recording_openh264.h"

#include <dlfcn.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <thread>

#define EXPORTED extern "C" __attribute__((visibility("default")))

namespace {

OpenH264Record record;
std::mutex recording; // encoders may run on several threads
const bool failsAlways = std::getenv("OPENH264_FAILS") != nullptr;

// For a process that only the environment reaches.
struct LastWords {
    ~LastWords() {
        if (failsAlways) std::fprintf(stderr, "%d encoders\n", record.created);
    }
} const lastWords;

void called() {
    if (record.onCall) record.onCall();
}

template <class Function>
Function* inLibrary(const char* symbol) {
    static void* const library = dlopen(OPENH264_LIBRARY, RTLD_NOW);
    return reinterpret_cast<Function*>(dlsym(library, symbol));
}

class RecordingEncoder final : public ISVCEncoder {
public:
    explicit RecordingEncoder(ISVCEncoder* libraryEncoder) : real(libraryEncoder) {
        const std::lock_guard lock(recording);
        ++record.created;
    }
    ~RecordingEncoder() {
        inLibrary<void(ISVCEncoder*)>("WelsDestroySVCEncoder")(real);
        const std::lock_guard lock(recording);
        ++record.destroyed;
    }

    int GetDefaultParams(SEncParamExt* param) override {
        called();
        const int result = real->GetDefaultParams(param);
        const std::lock_guard lock(recording);
        record.defaults = *param;
        return result;
    }
    int InitializeExt(const SEncParamExt* param) override {
        called();
        {
            const std::lock_guard lock(recording);
            record.param = *param;
        }
        if (record.refuseParameters) return cmInitParaError;
        int result = 0;
        const auto initialize = [&] { result = real->InitializeExt(param); };
        if (record.initializesElsewhere)
            std::thread(initialize).join();
        else
            initialize();
        return result;
    }
    int EncodeFrame(const SSourcePicture* picture, SFrameBSInfo* info) override {
        called();
        {
            const std::lock_guard lock(recording);
            record.timestamps.push_back(picture->uiTimeStamp);
            failed |= record.failAt.contains(record.timestamps.size() - 1);
        }
        if (failed || failsAlways) {
            if (!quiet) std::fputs("[OpenH264] Error\n", stderr);
            return cmMallocMemeError;
        }
        if (record.failToEncode) return cmUnknownReason;
        const int result = real->EncodeFrame(picture, info);
        if (record.skipPictures) info->eFrameType = videoFrameTypeSkip;
        return result;
    }

    int Initialize(const SEncParamBase* param) override { return other(real->Initialize(param)); }
    int Uninitialize() override { return other(real->Uninitialize()); }
    int EncodeParameterSets(SFrameBSInfo* info) override { return other(real->EncodeParameterSets(info)); }
    int ForceIntraFrame(bool idr, int layer) override { return other(real->ForceIntraFrame(idr, layer)); }
    int SetOption(ENCODER_OPTION option, void* value) override {
        if (option == ENCODER_OPTION_TRACE_LEVEL) quiet = *static_cast<int*>(value) == WELS_LOG_QUIET;
        return other(real->SetOption(option, value));
    }
    int GetOption(ENCODER_OPTION option, void* value) override {
        return other(real->GetOption(option, value));
    }

private:
    static int other(int result) {
        called();
        ++record.otherCalls;
        return result;
    }

    ISVCEncoder* real;
    bool failed = false;
    bool quiet = false;
};

} // namespace

EXPORTED OpenH264Record* openH264Record() { return &record; }

EXPORTED int WelsCreateSVCEncoder(ISVCEncoder** encoder) {
    called();
    ISVCEncoder* real = nullptr;
    if (record.refuseToCreate || inLibrary<int(ISVCEncoder**)>("WelsCreateSVCEncoder")(&real) != 0) return 1;
    *encoder = new RecordingEncoder(real);
    return 0;
}

EXPORTED void WelsDestroySVCEncoder(ISVCEncoder* encoder) {
    delete static_cast<RecordingEncoder*>(encoder);
    called();
}

EXPORTED OpenH264Version WelsGetCodecVersion() {
    return inLibrary<OpenH264Version()>("WelsGetCodecVersion")();
}
