#include "video/OpenH264Loader.h"

#include <dlfcn.h>

#include <iostream>

namespace {

template <class Function>
void resolve(void* library, const char* symbol, Function& function) {
    function = reinterpret_cast<Function>(dlsym(library, symbol));
}

} // namespace

COpenLoaderImpl::~COpenLoaderImpl() {
    if (liveEncoders > 0) libHandle.release();
}

int COpenLoaderImpl::LoadLib() { return LoadLibFrom(libraryPath); }

int COpenLoaderImpl::LoadLibFrom(const char* path) {
    const std::lock_guard lock(loading);
    if (state != 0) {
        std::cout << "pointers pre loaded\n";
        return state;
    }
    state = 1;
    functions = {};
    libHandle.reset(dlopen(path, RTLD_LAZY));
    if (libHandle) {
        EncoderLibFunctions found;
        resolve(libHandle.get(), "WelsCreateSVCEncoder", found.createEncoder);
        resolve(libHandle.get(), "WelsDestroySVCEncoder", found.destroyEncoder);
        resolve(libHandle.get(), "WelsGetCodecVersion", found.getCodecVersion);
        if (found.createEncoder && found.destroyEncoder && found.getCodecVersion)
            functions = found;
        else
            libHandle.reset();
    }
    state = libHandle ? 2 : 0;
    std::cout << (libHandle ? "loaded pointers\n" : "could not load pointers\n");
    return state;
}

int COpenLoaderImpl::GetLibFunctions(EncoderLibFunctions* copy) {
    const std::lock_guard lock(loading);
    *copy = functions;
    return state;
}
