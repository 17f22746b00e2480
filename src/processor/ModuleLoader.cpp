#include "processor/ModuleLoader.h"

#include "bridge/Log.h"

#include <cstdio>
#include <cstring>
#include <utility>

namespace {

constexpr Log say("Pipeline");

template <class Function>
void resolve(void* library, const char* symbol, const char* name, Function& function) {
    function = reinterpret_cast<Function>(dlsym(library, symbol));
    if (!function) say.warning("failed to linked %s \n", name);
}

template <class Function>
unsigned int call(const char* name, Function* entryPoint) {
    return ModuleCaller(reinterpret_cast<const void*>(entryPoint))(name, entryPoint);
}

// Modules that tell no interface are taken as they are.
bool interfaceIsKnown(void* library) {
    const auto getInterface = reinterpret_cast<unsigned int (*)()>(dlsym(library, "GetModuleInterface"));
    if (!getInterface) return true;
    const unsigned int number = call("GetModuleInterface", getInterface);
    if (number == KELVANE_MODULE_INTERFACE) return true;
    say.error("module %s refused: built for interface %u, not %u\n",
              ModuleCaller(reinterpret_cast<const void*>(getInterface)).name(), number,
              KELVANE_MODULE_INTERFACE);
    return false;
}

} // namespace

const char* ModuleCaller::name() const {
    Dl_info library;
    return place && dladdr(place, &library) && library.dli_fname ? library.dli_fname : "of no known file";
}

void ModuleCaller::caught(const char* operationName, const char* text) {
    if (thrown++) return;
    const auto firstLine = static_cast<int>(std::strcspn(text, "\r\n"));
    say.error("module %s threw in %s: %.*s\n", name(), operationName, firstLine, text);
}

void ModuleCaller::finish(const void* entryPoint) {
    if (thrown > 1) say.error("module %s threw %d times in this pipeline\n", name(), thrown);
    thrown = 0;
    place = entryPoint;
}

bool findModuleProblem(const char* path, char* text, size_t size) {
    const LibraryOwner library(dlopen(path, RTLD_NOW));
    if (!library) {
        describeLoadFailure(path, text, size);
        return true;
    }
    for (const char* name : {"GetGuid", "CreateVideoProcessor", "DestroyVideoProcessor"}) {
        if (dlsym(library.get(), name)) continue;
        std::snprintf(text, size, "it does not export %s", name);
        return true;
    }
    return false;
}

CLibLoaderImpl::~CLibLoaderImpl() {
    if (liveProcessors == 0) return;
    for (Module& module : modules)
        module.libHandle.release();
}

int CLibLoaderImpl::LoadLib(const char* path) {
    if (!path) return 0;
    const std::lock_guard lock(loading);
    if (moduleCount == capacity) {
        say.warning("module refused, %u are loaded \n", capacity);
        return 0;
    }
    // Where the library prints nothing, standard output is the modules': their last words are not to be lost.
    if (Log::destination() != Log::Destination::standard) std::setvbuf(stdout, nullptr, _IOLBF, 0);
    LibraryOwner library(dlopen(path, RTLD_LAZY));
    if (!library) {
        say.warning("module not found \n");
        return 0;
    }
    ProcessorFunctionPointers found;
    resolve(library.get(), "GetGuid", "get_guid", found.get_guid);
    resolve(library.get(), "CreateVideoProcessor", "create_video_processor", found.create_video_processor);
    resolve(library.get(), "DestroyVideoProcessor", "destroy_video_processor", found.destroy_video_processor);
    if (!found.get_guid || !found.destroy_video_processor || !interfaceIsKnown(library.get())) return 0;
    say.info("linked module \n");
    const unsigned int guid = call("GetGuid", found.get_guid);
    modules[moduleCount].functions = found;
    modules[moduleCount].libHandle = std::move(library);
    ++moduleCount;
    return static_cast<int>(guid);
}

int CLibLoaderImpl::GetLibFunctions(unsigned int guid, ProcessorFunctionPointers* functions) {
    for (uint32_t i = 0, count = moduleCount; i < count; ++i) {
        if (call("GetGuid", modules[i].functions.get_guid) != guid) continue;
        *functions = modules[i].functions;
        return 1;
    }
    *functions = {};
    return 0;
}
