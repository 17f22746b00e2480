#pragma once

#include "support/Media.h"

#include <jni.h>

// The virtual machine of the tests, made at the first use, with -Xcheck:jni; the calling thread is attached.
JNIEnv* javaEnv();

jbyteArray javaArray(const Bytes& bytes);
jbyteArray javaArray(int size, uint8_t fill = 0xEE);
Bytes bytesOf(jbyteArray array);
jstring javaString(const char* text);

// The class name of the pending exception, which is cleared; empty when there is none.
std::string takeException();

// A com.kelvane.media.test.RecordingListener: what receiveVideo was called with.
class Listener {
public:
    struct Call {
        int index;
        int timestamp;
        bool hasData;
        Bytes data;
    };

    explicit Listener(const char* className = "com/kelvane/media/test/RecordingListener");
    jobject object() const { return listener; }
    void throwFrom(int call); // -1 for never
    // The calls since the last take.
    std::vector<Call> take();

private:
    jclass type;
    jobject listener;
};

// Frees the local references made in its scope: a test thread never returns to Java.
class LocalFrame {
public:
    LocalFrame() { javaEnv()->PushLocalFrame(64); }
    ~LocalFrame() { javaEnv()->PopLocalFrame(nullptr); }
};
