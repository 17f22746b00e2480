#pragma once

#include <jni.h>

#include <cstdint>
#include <string>
#include <vector>

// As much of a Java environment as the wrappers of primitives need, without a virtual machine: arrays and
// strings are blocks of their exact size, beyond which a sanitizer sees every access.
JNIEnv* fakeJava();

struct FakeObject {
    const char* type = "[B"; // its class as FindClass is asked for it
    int elementSize = 1;
    std::vector<uint8_t> bytes;
};

inline jobject fakeObject(FakeObject* object) { return reinterpret_cast<jobject>(object); }
