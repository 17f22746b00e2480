#include "video/OpenH264Loader.h"

#include "bridge/Exceptions.h"
#include "bridge/Log.h"

#include <dlfcn.h>
#include <link.h>

#include <cstdio>
#include <optional>
#include <utility>

namespace {

constexpr Log say("OpenH264");

// False when the library itself has no such symbol. dlsym also finds those of the libraries that it needs.
template <class Function>
bool resolve(void* library, const char* symbol, Function& function) {
    void* const found = dlsym(library, symbol);
    link_map *itself = nullptr, *owner = nullptr;
    Dl_info info;
    function = reinterpret_cast<Function>(found);
    return found && dlinfo(library, RTLD_DI_LINKMAP, &itself) == 0 &&
           dladdr1(found, &info, reinterpret_cast<void**>(&owner), RTLD_DL_LINKMAP) != 0 && itself == owner;
}

enum class Outcome { usable, notOpenH264, unknownVersion };

// What it may not be usable for is told by `text`, cut to `size` bytes.
Outcome open(const char* path, LibraryOwner& library, EncoderLibFunctions& functions, char* text,
             size_t size) {
    LibraryOwner opened(dlopen(path, RTLD_LAZY));
    if (!opened) {
        describeLoadFailure(path, text, size);
        return Outcome::notOpenH264;
    }
    EncoderLibFunctions found;
    if (!resolve(opened.get(), "WelsCreateSVCEncoder", found.createEncoder) ||
        !resolve(opened.get(), "WelsDestroySVCEncoder", found.destroyEncoder) ||
        !resolve(opened.get(), "WelsGetCodecVersion", found.getCodecVersion)) {
        std::snprintf(text, size, "it is no OpenH264");
        return Outcome::notOpenH264;
    }
    // Before anything else is called: all that takes a record depends on it.
    const OpenH264Version version = resultOr(OpenH264Version{}, found.getCodecVersion);
    const std::optional<OpenH264Layout> layout = layoutOf(version);
    if (!layout) {
        std::snprintf(text, size, "it is OpenH264 %u.%u.%u; those that will do are %s", version.uMajor,
                      version.uMinor, version.uRevision, knownOpenH264Versions);
        return Outcome::unknownVersion;
    }
    found.layout = *layout;
    functions = found;
    library = std::move(opened);
    return Outcome::usable;
}

} // namespace

bool findOpenH264Problem(const char* path, char* text, size_t size) {
    LibraryOwner library;
    EncoderLibFunctions functions;
    return open(path, library, functions, text, size) != Outcome::usable;
}

COpenLoaderImpl::~COpenLoaderImpl() {
    if (liveEncoders > 0) libHandle.release();
}

int COpenLoaderImpl::LoadLib() { return LoadLibFrom(libraryPath); }

int COpenLoaderImpl::LoadLibFrom(const char* path) {
    const std::lock_guard lock(loading);
    if (state != 0) {
        say.debug("pointers pre loaded\n");
        return state;
    }
    state = 1;
    functions = {};
    libHandle.reset();
    char problem[128];
    const Outcome outcome = open(path, libHandle, functions, problem, sizeof problem);
    if (outcome == Outcome::unknownVersion) say.error("%s is refused: %s\n", path, problem);
    state = libHandle ? 2 : 0;
    if (libHandle)
        say.info("loaded pointers\n");
    else
        say.warning("could not load pointers\n");
    return state;
}

int COpenLoaderImpl::GetLibFunctions(EncoderLibFunctions* copy) {
    const std::lock_guard lock(loading);
    *copy = functions;
    return state;
}
