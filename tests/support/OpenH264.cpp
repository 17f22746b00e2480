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
