#pragma once

#include <cstddef>
#include <cstdint>

// The memory of one argument of a module's operation. It lies among pages that nobody may touch, so that an
// access outside of it stops at the very instruction; when the argument's time is over it is out of bounds as
// a whole.
class GuardedBuffer {
public:
    enum class Side { end, start }; // what of the memory touches a forbidden page

    // Plain memory from malloc instead, for programs that watch that themselves.
    static bool plain;

    // `name` outlives the process: "the picture". An alignment above 1 may leave a few bytes up to the
    // forbidden page.
    GuardedBuffer(const char* name, size_t size, size_t alignment, Side side);
    ~GuardedBuffer();
    GuardedBuffer(const GuardedBuffer&) = delete;
    GuardedBuffer& operator=(const GuardedBuffer&) = delete;

    void makeReadOnly();
    // Whether one of the few bytes that no page guards has changed.
    bool isDamagedAround() const;

    unsigned char* data = nullptr;
    const size_t size;

private:
    unsigned char* open = nullptr; // the pages that can be touched
    size_t openSize = 0;
    size_t place = 0; // in the list of buffers
};

// What an address is to the buffers that there are, and to those there were of late.
struct BufferAddress {
    const char* name = nullptr; // null: nothing
    size_t size = 0;
    ptrdiff_t offset = 0; // from the buffer's first byte
    bool isOver = false;  // the argument's time is
};
BufferAddress findBuffer(uintptr_t address); // safe in a signal handler
