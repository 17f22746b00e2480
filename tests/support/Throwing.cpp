#include "support/Throwing.h"

extern "C" {
#include <libavcodec/avcodec.h>
}

#include "video/OpenH264Loader.h"

#include <dlfcn.h>
#include <opus.h>

#include <filesystem>

namespace {

OpenH264Record* counted = nullptr;
int callsSoFar = 0, throwing = 0;

void countCall() {
    if (++callsSoFar == throwing) throw 7;
}

bool isOfProgram(const void* code) {
    Dl_info its, own;
    return dladdr(code, &its) && dladdr(&throwing, &own) && its.dli_fbase == own.dli_fbase;
}

template <class Function>
Function* next(const char* name, Function*) {
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

template <class Function>
Function* openH264(const char* name, Function* own) {
    static void* const recorder =
        dlopen(std::filesystem::absolute(COpenLoaderImpl::libraryPath).c_str(), RTLD_NOW);
    return counted ? reinterpret_cast<Function*>(dlsym(recorder, name)) : next(name, own);
}

} // namespace

ThrowingLibraries::ThrowingLibraries(OpenH264Record& recorder, int throwAt) {
    counted = &recorder;
    counted->onCall = countCall;
    callsSoFar = 0;
    throwing = throwAt;
}

ThrowingLibraries::~ThrowingLibraries() {
    counted->onCall = nullptr;
    counted = nullptr;
}

int ThrowingLibraries::calls() const { return callsSoFar; }

// Each does its work first, so that nothing but what the exception interrupts is lost. FFmpeg's calls of its
// own functions come here, too, and do not count.
#define IN_FRONT_OF(result, name, parameters, arguments)                                                     \
    extern "C" __attribute__((visibility("default"))) result name parameters {                               \
        struct Count {                                                                                       \
            ~Count() noexcept(false) {                                                                       \
                if (counted && isOfProgram(caller)) countCall();                                             \
            }                                                                                                \
            const void* caller;                                                                              \
        } const count{__builtin_return_address(0)};                                                          \
        return next(#name, &name) arguments;                                                                 \
    }
IN_FRONT_OF(int, avcodec_open2, (AVCodecContext * context, const AVCodec* codec, AVDictionary** options),
            (context, codec, options))
IN_FRONT_OF(void, avcodec_free_context, (AVCodecContext * *context), (context))
IN_FRONT_OF(void, av_frame_free, (AVFrame * *frame), (frame))
IN_FRONT_OF(void, opus_decoder_destroy, (OpusDecoder * decoder), (decoder))
IN_FRONT_OF(void, opus_encoder_destroy, (OpusEncoder * encoder), (encoder))

// FFmpeg's way to OpenH264.
extern "C" __attribute__((visibility("default"))) int WelsCreateSVCEncoder(ISVCEncoder** encoder) {
    return openH264("WelsCreateSVCEncoder", &WelsCreateSVCEncoder)(encoder);
}
extern "C" __attribute__((visibility("default"))) void WelsDestroySVCEncoder(ISVCEncoder* encoder) {
    openH264("WelsDestroySVCEncoder", &WelsDestroySVCEncoder)(encoder);
}
