#pragma once

#include "bridge/Owners.h"
#include "video/OpenH264Records.h"

#include <atomic>
#include <cstdint>
#include <mutex>

// Entry points of the OpenH264 library; all null while it is not loaded.
struct EncoderLibFunctions {
    int (*createEncoder)(ISVCEncoder** encoder) = nullptr;
    void (*destroyEncoder)(ISVCEncoder* encoder) = nullptr;
    OpenH264Version (*getCodecVersion)() = nullptr;
    OpenH264Layout layout = OpenH264Layout::upTo25; // of the library's records
};

// Opens a library as LoadLib does, and closes it again. True when it cannot be opened, is no OpenH264, or one
// of a version that is not known; `text` then says which, cut to `size` bytes.
bool findOpenH264Problem(const char* path, char* text, size_t size);

// Opens the OpenH264 library at run time. All operations may be called from several threads at once.
class COpenLoader {
public:
    // Loads the library unless it is loaded; returns `state` afterwards: 2 loaded, 0 not. A version whose
    // records are not known is refused, with a line on standard error.
    virtual int LoadLib() = 0;
    // Copies the entry points and returns `state`. Waits for a load under way.
    virtual int GetLibFunctions(EncoderLibFunctions* functions) = 0;
    // As LoadLib(), from a path of the caller's choice.
    virtual int LoadLibFrom(const char* path) = 0;

protected:
    ~COpenLoader() = default;
};

class COpenLoaderImpl final : public COpenLoader {
public:
    // Relative: the dynamic loader resolves it against the working directory of the process.
    static constexpr const char* libraryPath = "lib/amd64-Linux-gpp/jni/libopenh264-1.8.0-linux64.4.so";

    std::atomic<int32_t> state = 0; // 0 not loaded, 1 load under way, 2 loaded
    EncoderLibFunctions functions;
    LibraryOwner libHandle;
    // While there are any, the library stays mapped even when the loader is destroyed: a process may exit
    // while threads still encode.
    std::atomic<int32_t> liveEncoders = 0;

    COpenLoaderImpl() = default;
    ~COpenLoaderImpl();
    int LoadLib() override;
    int GetLibFunctions(EncoderLibFunctions* copy) override;
    int LoadLibFrom(const char* path) override;

private:
    std::mutex loading;
};
