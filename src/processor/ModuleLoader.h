#pragma once

#include "bridge/Owners.h"

#include <kelvane/module.h>

#include <atomic>
#include <cstdint>
#include <exception>
#include <mutex>

// Calls one module for one owner. What the module throws ends here and counts as a result of 0. The first
// exception is reported on standard error at once; how many there were, if more, when the owner is done.
class ModuleCaller {
public:
    // `entryPoint` lies in the module's library and so tells its name.
    explicit ModuleCaller(const void* entryPoint = nullptr) : place(entryPoint) {}
    ~ModuleCaller() { finish(); }
    ModuleCaller(const ModuleCaller&) = delete;
    ModuleCaller& operator=(const ModuleCaller&) = delete;

    template <class Operation>
    auto operator()(const char* operationName, Operation operation) -> decltype(operation()) {
        try {
            return operation();
        } catch (const std::exception& exception) {
            caught(operationName, exception.what());
        } catch (...) {
            caught(operationName, "not a std::exception");
        }
        return decltype(operation())();
    }

    // Done with the module: the next call is of the one that `entryPoint` lies in.
    void finish(const void* entryPoint = nullptr);
    // File of the module.
    const char* name() const;

    int thrown = 0; // exceptions so far

private:
    void caught(const char* operationName, const char* text);

    const void* place;
};

// Entry points of one module; all null when there is no such module.
struct ProcessorFunctionPointers {
    unsigned int (*get_guid)() = nullptr;
    CModuleProcessor* (*create_video_processor)() = nullptr;
    void (*destroy_video_processor)(CModuleProcessor* processor) = nullptr;
};

// Opens a library with all its symbols resolved, which LoadLib does not ask for, and closes it again. True when it
// cannot be opened or an entry point is absent; `text` then says which, cut to `size` bytes.
bool findModuleProblem(const char* path, char* text, size_t size);

// Opens module libraries and finds them again by their GUID. Loads may overlap each other and look-ups.
class CLibLoader {
public:
    // Loads one module; returns its GUID, or 0 when the library cannot be opened, lacks "GetGuid" or
    // "DestroyVideoProcessor", was built for an interface that is not ours, or finds no room.
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
