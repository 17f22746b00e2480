// Preloaded: the allocation functions of the C library, one call of which can be told to fail. Blocks taken
// while allocations are counted are known until they are freed.

#include "support/failing_malloc.h"

#include <execinfo.h>
#include <malloc.h>

#include <cerrno>
#include <cstdint>
#include <iterator>

extern "C" {
void* __libc_malloc(size_t);
void* __libc_calloc(size_t, size_t);
void* __libc_realloc(void*, size_t);
void* __libc_memalign(size_t, size_t);
void __libc_free(void*);
}

namespace {

AllocationRecord record;
constexpr size_t tableSize = 1 << 16;
void* blocks[tableSize]; // by their address; the tests have one thread while this is in use

size_t placeOf(const void* block) { return reinterpret_cast<uintptr_t>(block) / 16 % tableSize; }

bool fails() {
    if (!record.counting || ++record.allocations != record.failAt) return false;
    backtrace(record.site, static_cast<int>(std::size(record.site)));
    return true;
}

// The first backtrace of a process loads a library.
[[maybe_unused]] const int loaded = backtrace(record.site, 1);

void* taken(void* block) {
    if (!record.counting || !block) return block;
    size_t at = placeOf(block);
    while (blocks[at])
        at = (at + 1) % tableSize;
    blocks[at] = block;
    ++record.live;
    return block;
}

void given(void* block) {
    if (record.live == 0 || !block) return;
    for (size_t at = placeOf(block); blocks[at]; at = (at + 1) % tableSize) {
        if (blocks[at] != block) continue;
        --record.live;
        // The blocks behind it move up, so that they are still found.
        size_t hole = at;
        for (size_t next = (at + 1) % tableSize; blocks[next]; next = (next + 1) % tableSize) {
            const size_t home = placeOf(blocks[next]);
            if ((next - home) % tableSize < (next - hole) % tableSize) continue;
            blocks[hole] = blocks[next];
            hole = next;
        }
        blocks[hole] = nullptr;
        return;
    }
}

} // namespace

extern "C" {

AllocationRecord* allocationRecord() { return &record; }

void* malloc(size_t size) { return fails() ? nullptr : taken(__libc_malloc(size)); }
void* calloc(size_t count, size_t size) { return fails() ? nullptr : taken(__libc_calloc(count, size)); }
void* memalign(size_t alignment, size_t size) {
    return fails() ? nullptr : taken(__libc_memalign(alignment, size));
}
void* aligned_alloc(size_t alignment, size_t size) { return memalign(alignment, size); }
int posix_memalign(void** block, size_t alignment, size_t size) {
    void* made = memalign(alignment, size);
    if (!made) return ENOMEM;
    *block = made;
    return 0;
}
void* realloc(void* block, size_t size) {
    if (fails()) return nullptr;
    given(block);
    return taken(__libc_realloc(block, size));
}
void free(void* block) {
    given(block);
    __libc_free(block);
}
}
