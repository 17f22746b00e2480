#pragma once

// The JNI idioms of the native methods: arrays are copied whole, in and out, and a Java exception raised on
// the way is put aside, so that no later JNI call runs with one pending.

#include "bridge/Owners.h"

#include <jni.h>

// A native copy of a whole Java array; empty when there is no memory for it.
struct ArrayCopy {
    MallocBuffer bytes;
    jsize size = 0;

    explicit operator bool() const { return bytes != nullptr; }
    template <class Byte>
    Byte* as() const {
        return reinterpret_cast<Byte*>(bytes.get());
    }
};

// One native method at work. Its destructor raises the first exception that was put aside.
class JavaCall {
public:
    explicit JavaCall(JNIEnv* environment) : env(environment) {}
    ~JavaCall();
    JavaCall(const JavaCall&) = delete;
    JavaCall& operator=(const JavaCall&) = delete;

    ArrayCopy copyIn(jbyteArray array) const;

    // A part of an array to memory that has room for it. False when the array does not have that part.
    bool copyIn(jbyteArray array, void* bytes, jsize from, jsize size) const;

    // A native copy of a part of a byte array or, where `array` is null, of a direct buffer. Empty when there
    // is no such part, or no memory for it. Others may write there meanwhile: what is to be parsed is the
    // copy.
    ArrayCopy copyIn(jbyteArray array, jobject direct, jsize from, jsize size) const;

    // An array that ends before `at + size` stays untouched, and Java sees an ArrayIndexOutOfBoundsException.
    void copyOut(jbyteArray array, const void* bytes, jsize size, jsize at = 0);

    // Into an array that is known to reach to `at + size`: the question for an exception, which takes as long
    // as a small copy, is left out.
    void copyWithin(jbyteArray array, const void* bytes, jsize size, jsize at = 0) const;
    void fillWithin(jbyteArray array, jsize at, uint8_t value, jsize size) const;

    // `text` as a Java string, its bytes that are not ASCII, which a file or a symbol may have, as question
    // marks.
    jstring newAscii(char* text);

    // Puts a pending exception aside for the return to Java; the first one is kept. To be called after every
    // JNI function that may raise one.
    void deferException();

    JNIEnv* const env;

private:
    jthrowable deferred = nullptr;
};

// A Java string as modified UTF-8; null characters when there is no memory for them.
class JavaString {
public:
    JavaString(JavaCall& call, jstring javaString)
        : java(call), string(javaString), characters(java.env->GetStringUTFChars(string, nullptr)) {
        java.deferException();
    }
    ~JavaString() {
        if (characters) java.env->ReleaseStringUTFChars(string, characters);
    }
    JavaString(const JavaString&) = delete;
    JavaString& operator=(const JavaString&) = delete;

    const char* get() const { return characters; }

private:
    JavaCall& java;
    jstring string;
    const char* characters;
};

// A Java string as a path of the file system, in UTF-8 itself; null when there is no memory for it.
class JavaPath {
public:
    JavaPath(JavaCall& call, jstring javaString);

    const char* get() const { return reinterpret_cast<const char*>(path.get()); }

private:
    MallocBuffer path;
};

// Writes `number` most significant byte first, as the info arrays carry numbers.
inline void putBigEndian(uint8_t* bytes, int count, uint32_t number) {
    for (int i = count - 1; i >= 0; --i, number >>= 8)
        bytes[i] = static_cast<uint8_t>(number);
}
