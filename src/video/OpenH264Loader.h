#pragma once

#include "bridge/Owners.h"

#include <wels/codec_api.h>

#include <atomic>
#include <cstdint>
#include <mutex>
#include <new>

// Entry points of the OpenH264 library; all null while it is not loaded.
struct EncoderLibFunctions {
    int (*createEncoder)(ISVCEncoder** encoder) = nullptr;
    void (*destroyEncoder)(ISVCEncoder* encoder) = nullptr;
    OpenH264Version (*getCodecVersion)() = nullptr;
};

// The result of a call into OpenH264, or of FFmpeg around it; -1 for the std::bad_alloc that it lets through when it is
// out of memory, and which would end the Java virtual machine.
template <class Call>
int withoutExceptions(Call call) {
    try {
        return call();
    } catch (const std::bad_alloc&) {
        return -1;
    }
}

// Opens the OpenH264 library at run time. All operations may be called from several threads at once.
class COpenLoader {
public:
    // Loads the library unless it is loaded; returns `state` afterwards: 2 loaded, 0 not.
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
