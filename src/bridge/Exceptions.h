#pragma once

// Behind the C interfaces of FFmpeg, Opus and OpenH264 there is C++, which throws: std::bad_alloc at the
// least. It passes through C frames, as all code on x86-64 has unwind tables, and would end the Java virtual
// machine.

#include <utility>

// Runs `call` and tells whether it came to its end. What it throws, of whatever type, goes no further.
template <class Call>
bool completes(Call&& call) noexcept {
    try {
        std::forward<Call>(call)();
        return true;
    } catch (...) {
        return false;
    }
}

// The result of `call`, or `otherwise` when it throws.
template <class Result, class Call>
Result resultOr(Result otherwise, Call&& call) noexcept {
    Result result = otherwise;
    completes([&] { result = call(); });
    return result;
}
