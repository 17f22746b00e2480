#pragma once

#include "bridge/Owners.h"

#include <kelvane/module.h>

#include <atomic>
#include <cstdint>
#include <exception>
#include <mutex>

// One line on standard error.
void reportThrown(const char* operationName, const char* text);

// Calls a module. What it throws ends here: it is reported and counts as a result of 0.
template <class Operation>
auto callModule(const char* operationName, Operation operation) -> decltype(operation()) {
    try {
        return operation();
    } catch (const std::exception& exception) {
        reportThrown(operationName, exception.what());
    } catch (...) {
        reportThrown(operationName, "not a std::exception");
    }
    return decltype(operation())();
}

// Entry points of one module; all null when there is no such module.
struct ProcessorFunctionPointers {
    unsigned int (*get_guid)() = nullptr;
    CModuleProcessor* (*create_video_processor)() = nullptr;
    void (*destroy_video_processor)(CModuleProcessor* processor) = nullptr;
};

// Opens module libraries and finds them again by their GUID. Loads may overlap each other and look-ups.
class CLibLoader {
public:
    // Loads one module; returns its GUID, or 0 when the library cannot be opened, lacks "GetGuid" or
    // "DestroyVideoProcessor", or finds no room.
    virtual int LoadLib(const char* path) = 0;
    // Copies the entry points of the first module loaded that has this GUID and returns 1, or sets them to
    // null and returns 0.
    virtual int GetLibFunctions(unsigned int guid, ProcessorFunctionPointers* functions) = 0;

protected:
    ~CLibLoader() = default;
};

class CLibLoaderImpl final : public CLibLoader {
public:
    static constexpr uint32_t capacity = 256;

    struct Module {
        ProcessorFunctionPointers functions;
        LibraryOwner libHandle;
    };

    std::atomic<uint32_t> moduleCount = 0; // entries that are complete
    Module modules[capacity];              // in load order
    // While there are any, modules stay mapped even when the loader is destroyed: a process may exit while
    // threads are inside them.
    std::atomic<int32_t> liveProcessors = 0;

    CLibLoaderImpl() = default;
    ~CLibLoaderImpl();
    int LoadLib(const char* path) override;
    int GetLibFunctions(unsigned int guid, ProcessorFunctionPointers* functions) override;

private:
    std::mutex loading;
};
