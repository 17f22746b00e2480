#include "video/BitstreamRoom.h"

#include <dlfcn.h>
#include <elf.h>
#include <link.h>
#include <pthread.h>
#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <cstring>

namespace {

using Malloc = void* (*)(size_t);

// The most that CABAC writes for a macroblock is 2,661 bytes, less than seven times its 384 samples: each of
// 384 levels of 16 bits takes at most 16 bins with a context and 30 without, all else 506 and 992. A bin
// without context is one bit, one with a context at most 1.32, whatever the bins before it (the costliest
// cycle of the table of states, at the worst range), but for 846 bytes once in a slice. Noise of two values
// was seen to take 1.3 pictures.
constexpr size_t roomInPictures = 7;

// The buffers are longer than the picture by parameter sets, two macroblocks and what aligns them: 1.1 KB.
constexpr size_t largestExcess = 4096;
constexpr int bitstreamBuffers = 2; // before and after emulation prevention

// Not thread_local: that takes memory when a thread first comes by, and ends a process that has none.
pthread_key_t roomOfThread;

// What the library called before: malloc, or the function below in another copy of this code, which the
// library of another class loader is.
std::atomic<Malloc> previous = nullptr;

void* mallocWithRoom(size_t size) {
    auto* const room = static_cast<BitstreamRoom*>(pthread_getspecific(roomOfThread));
    return previous.load()(room ? room->extended(size) : size);
}

// The library may be called, by FFmpeg for instance, when this code's class loader is long gone.
bool stayLoaded() {
    Dl_info info;
    link_map* itself = nullptr;
    if (!dladdr1(reinterpret_cast<void*>(&mallocWithRoom), &info, reinterpret_cast<void**>(&itself),
                 RTLD_DL_LINKMAP))
        return false;
    const bool isProgram = !itself->l_name || !*itself->l_name;
    return isProgram || dlopen(itself->l_name, RTLD_LAZY | RTLD_NOLOAD | RTLD_NODELETE);
}

// One loaded library, as the dynamic linker describes it.
class LoadedObject {
public:
    explicit LoadedObject(const dl_phdr_info& description) : object(description) {}

    bool contains(const void* address) const { return segmentOf(address, PT_LOAD) != nullptr; }

    const char* fileName() const {
        const char* const slash = std::strrchr(object.dlpi_name, '/');
        return slash ? slash + 1 : object.dlpi_name;
    }

    void redirectMalloc() const {
        for (int i = 0; i < object.dlpi_phnum; ++i)
            if (object.dlpi_phdr[i].p_type == PT_DYNAMIC)
                redirectIn(
                    reinterpret_cast<const ElfW(Dyn)*>(object.dlpi_addr + object.dlpi_phdr[i].p_vaddr));
    }

private:
    const ElfW(Phdr) * segmentOf(const void* address, ElfW(Word) type) const {
        const auto at = reinterpret_cast<uintptr_t>(address) - object.dlpi_addr;
        for (int i = 0; i < object.dlpi_phnum; ++i) {
            const ElfW(Phdr)& segment = object.dlpi_phdr[i];
            if (segment.p_type == type && at >= segment.p_vaddr && at - segment.p_vaddr < segment.p_memsz)
                return &segment;
        }
        return nullptr;
    }

    void redirectIn(const ElfW(Dyn) * entry) const {
        uintptr_t symbols = 0, names = 0, calls = 0, data = 0;
        size_t callBytes = 0, dataBytes = 0;
        for (; entry->d_tag != DT_NULL; ++entry) {
            if (entry->d_tag == DT_SYMTAB) symbols = entry->d_un.d_ptr;
            if (entry->d_tag == DT_STRTAB) names = entry->d_un.d_ptr;
            if (entry->d_tag == DT_JMPREL) calls = entry->d_un.d_ptr;
            if (entry->d_tag == DT_PLTRELSZ) callBytes = entry->d_un.d_val;
            if (entry->d_tag == DT_RELA) data = entry->d_un.d_ptr;
            if (entry->d_tag == DT_RELASZ) dataBytes = entry->d_un.d_val;
        }
        const auto redirectAll = [&](uintptr_t table, size_t bytes) {
            const auto* const relocations = reinterpret_cast<const ElfW(Rela)*>(table);
            for (size_t i = 0; i < bytes / sizeof *relocations; ++i) {
                const auto type = ELF64_R_TYPE(relocations[i].r_info);
                if (type != R_X86_64_JUMP_SLOT && type != R_X86_64_GLOB_DAT) continue;
                const auto* const symbol =
                    reinterpret_cast<const ElfW(Sym)*>(symbols) + ELF64_R_SYM(relocations[i].r_info);
                if (std::strcmp(reinterpret_cast<const char*>(names) + symbol->st_name, "malloc") == 0)
                    redirect(*reinterpret_cast<Malloc*>(object.dlpi_addr + relocations[i].r_offset));
            }
        };
        redirectAll(calls, callBytes);
        redirectAll(data, dataBytes);
    }

    void redirect(Malloc& import) const {
        const std::atomic_ref<Malloc> imported(import);
        const Malloc now = imported.load();
        if (now == &mallocWithRoom) return;
        // An import that was never called leads into the library itself, to where it would be looked up.
        const Malloc next = contains(reinterpret_cast<const void*>(now)) ? &std::malloc : now;
        Malloc before = nullptr;
        // What leads neither to malloc nor to what led there before comes here by way of another copy.
        if (!previous.compare_exchange_strong(before, next) && before != next && next != &std::malloc) return;
        if (!segmentOf(&import, PT_GNU_RELRO)) {
            imported.store(&mallocWithRoom);
            return;
        }
        const auto pageSize = static_cast<uintptr_t>(sysconf(_SC_PAGESIZE));
        auto* const page = reinterpret_cast<void*>(reinterpret_cast<uintptr_t>(&import) & ~(pageSize - 1));
        if (mprotect(page, pageSize, PROT_READ | PROT_WRITE) != 0) return;
        imported.store(&mallocWithRoom);
        mprotect(page, pageSize, PROT_READ);
    }

    const dl_phdr_info& object;
};

// The dynamic linker's lock is held meanwhile, so that copies of this code do not meet here.
int redirectIfOpenH264(dl_phdr_info* description, size_t, void* code) {
    const LoadedObject object(*description);
    // One may stand in front of another.
    if (object.contains(code) || std::strncmp(object.fileName(), "libopenh264", 11) == 0)
        object.redirectMalloc();
    return 0;
}

} // namespace

BitstreamRoom::BitstreamRoom(const void* code, uint32_t width, uint32_t height)
    : pictureSize(((size_t{width} + 15) / 16) * ((size_t{height} + 15) / 16) * 384) {
    static const bool isReady = stayLoaded() && pthread_key_create(&roomOfThread, nullptr) == 0;
    active = isReady && pthread_setspecific(roomOfThread, this) == 0;
    if (active) dl_iterate_phdr(redirectIfOpenH264, const_cast<void*>(code));
}

BitstreamRoom::~BitstreamRoom() {
    if (active) pthread_setspecific(roomOfThread, nullptr);
}

bool BitstreamRoom::given() const { return buffers >= bitstreamBuffers; }

size_t BitstreamRoom::extended(size_t asked) {
    if (asked < pictureSize || asked - pictureSize > largestExcess) return asked;
    ++buffers;
    return asked + roomInPictures * pictureSize;
}
