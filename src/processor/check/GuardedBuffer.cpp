#include "processor/check/GuardedBuffer.h"

#include <sys/mman.h>

#include <algorithm>
#include <cstdlib>
#include <mutex>
#include <new>

namespace {

constexpr size_t pageSize = 4096;
constexpr size_t guardSize = size_t{16} << 20; // on either side: address space only
constexpr unsigned char untouched = 0xa5;

struct Mapping {
    unsigned char* start; // null: free
    size_t size;
    BufferAddress buffer; // whose offset is that of its first byte from `start`
    uint64_t closedAt;    // 0 while the argument lives
};

// Closed mappings stay for a while, the oldest is the first to go.
Mapping mappings[64];
uint64_t closings = 0;
std::mutex listing;

Mapping& vacate() {
    Mapping* oldest = nullptr;
    for (Mapping& mapping : mappings) {
        if (!mapping.start) return mapping;
        if (mapping.closedAt && (!oldest || mapping.closedAt < oldest->closedAt)) oldest = &mapping;
    }
    munmap(oldest->start, oldest->size);
    oldest->start = nullptr;
    return *oldest;
}

size_t roundUp(size_t size, size_t unit) { return (size + unit - 1) / unit * unit; }

} // namespace

bool GuardedBuffer::plain = false;

GuardedBuffer::GuardedBuffer(const char* name, size_t bytes, size_t alignment, Side side) : size(bytes) {
    if (plain) {
        data = static_cast<unsigned char*>(std::malloc(size ? size : 1));
        if (!data) throw std::bad_alloc();
        return;
    }
    openSize = roundUp(size, pageSize);
    const size_t mappedSize = openSize + 2 * guardSize;
    void* const mapped =
        mmap(nullptr, mappedSize, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    if (mapped == MAP_FAILED) throw std::bad_alloc();
    open = static_cast<unsigned char*>(mapped) + guardSize;
    if (openSize && mprotect(open, openSize, PROT_READ | PROT_WRITE) != 0) throw std::bad_alloc();
    std::fill_n(open, openSize, untouched);
    data = side == Side::start ? open : open + openSize - roundUp(size, alignment);

    const std::lock_guard lock(listing);
    Mapping& mapping = vacate();
    place = static_cast<size_t>(&mapping - mappings);
    mapping = {static_cast<unsigned char*>(mapped), mappedSize, {name, size, data - open, false}, 0};
    mapping.buffer.offset += static_cast<ptrdiff_t>(guardSize);
}

GuardedBuffer::~GuardedBuffer() {
    if (plain) {
        std::free(data);
        return;
    }
    if (openSize) {
        mprotect(open, openSize, PROT_NONE);
        madvise(open, openSize, MADV_DONTNEED);
    }
    const std::lock_guard lock(listing);
    mappings[place].closedAt = ++closings;
}

void GuardedBuffer::makeReadOnly() {
    if (openSize) mprotect(open, openSize, PROT_READ);
}

bool GuardedBuffer::isDamagedAround() const {
    const auto touched = [](unsigned char byte) { return byte != untouched; };
    return openSize &&
           (std::any_of(open, data, touched) || std::any_of(data + size, open + openSize, touched));
}

BufferAddress findBuffer(uintptr_t address) {
    for (const Mapping& mapping : mappings) {
        const auto start = reinterpret_cast<uintptr_t>(mapping.start);
        if (!start || address < start || address >= start + mapping.size) continue;
        BufferAddress found = mapping.buffer;
        found.offset = static_cast<ptrdiff_t>(address - start) - found.offset;
        found.isOver = mapping.closedAt != 0;
        return found;
    }
    return {};
}
