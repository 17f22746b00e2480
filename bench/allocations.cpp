// Preloaded, it counts a process's allocations in the file that KELVANE_ALLOCATIONS names: their number,
// their bytes, the bytes that are not freed, and the most of those that there were; 8 bytes each in the
// machine's order.

#include <fcntl.h>
#include <malloc.h>
#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstdlib>

extern "C" {
void* __libc_malloc(size_t);
void* __libc_calloc(size_t, size_t);
void* __libc_realloc(void*, size_t);
void* __libc_memalign(size_t, size_t);
void __libc_free(void*);
}

namespace {

struct Counts {
    std::atomic<uint64_t> number, bytes, live, most;
};
Counts uncounted;
Counts* counts = &uncounted;

__attribute__((constructor)) void openFile() {
    const char* path = std::getenv("KELVANE_ALLOCATIONS");
    const int file = path ? open(path, O_RDWR | O_CREAT, 0600) : -1;
    if (file < 0 || ftruncate(file, sizeof(Counts)) != 0) return;
    void* memory = mmap(nullptr, sizeof(Counts), PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
    if (memory != MAP_FAILED) counts = static_cast<Counts*>(memory);
    close(file);
}

void* counted(void* memory, size_t size) {
    counts->number.fetch_add(1, std::memory_order_relaxed);
    counts->bytes.fetch_add(size, std::memory_order_relaxed);
    const uint64_t usable = malloc_usable_size(memory);
    const uint64_t live = counts->live.fetch_add(usable, std::memory_order_relaxed) + usable;
    // Threads may overwrite each other's maximum; those of a megabyte matter, and are few.
    if (live > counts->most.load(std::memory_order_relaxed))
        counts->most.store(live, std::memory_order_relaxed);
    return memory;
}

void freed(void* memory) { counts->live.fetch_sub(malloc_usable_size(memory), std::memory_order_relaxed); }

} // namespace

extern "C" {
void* malloc(size_t size) { return counted(__libc_malloc(size), size); }
void* calloc(size_t number, size_t size) { return counted(__libc_calloc(number, size), number * size); }
void free(void* memory) {
    freed(memory);
    __libc_free(memory);
}
void* realloc(void* memory, size_t size) {
    freed(memory);
    return counted(__libc_realloc(memory, size), size);
}
void* memalign(size_t alignment, size_t size) { return counted(__libc_memalign(alignment, size), size); }
void* aligned_alloc(size_t alignment, size_t size) { return memalign(alignment, size); }
int posix_memalign(void** memory, size_t alignment, size_t size) {
    *memory = memalign(alignment, size);
    return *memory ? 0 : 12; // ENOMEM
}
}
