#pragma once

// H.264's byte-stream form: NAL units, each behind a start code 00 00 01.

#include <cstddef>
#include <cstring>

// What lies behind the next start code; null when there is none up to `end`.
template <class Byte>
Byte* behindStartCode(Byte* from, Byte* end) {
    if (end - from < 3) return nullptr;
    // memchr, since a start code ends with the rarest of its bytes.
    for (Byte* at = from + 2; at < end; ++at) {
        at = static_cast<Byte*>(std::memchr(at, 1, static_cast<size_t>(end - at)));
        if (!at) break;
        if (at[-1] == 0 && at[-2] == 0) return at + 1;
    }
    return nullptr;
}
