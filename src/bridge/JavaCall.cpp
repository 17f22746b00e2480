#include "bridge/JavaCall.h"

#include <algorithm>
#include <cstring>

JavaCall::~JavaCall() {
    if (deferred) env->Throw(deferred);
}

ArrayCopy JavaCall::copyIn(jbyteArray array) const {
    ArrayCopy copy;
    copy.size = env->GetArrayLength(array);
    copy.bytes = mallocBuffer(static_cast<size_t>(copy.size));
    if (copy) env->GetByteArrayRegion(array, 0, copy.size, copy.as<jbyte>());
    return copy;
}

bool JavaCall::copyIn(jbyteArray array, void* bytes, jsize from, jsize size) const {
    if (from < 0 || size < 0 || size > env->GetArrayLength(array) - from) return false;
    env->GetByteArrayRegion(array, from, size, static_cast<jbyte*>(bytes));
    return true;
}

void JavaCall::copyOut(jbyteArray array, const void* bytes, jsize size, jsize at) {
    copyWithin(array, bytes, size, at);
    deferException();
}

void JavaCall::copyWithin(jbyteArray array, const void* bytes, jsize size, jsize at) const {
    env->SetByteArrayRegion(array, at, size, static_cast<const jbyte*>(bytes));
}

void JavaCall::fillWithin(jbyteArray array, jsize at, uint8_t value, jsize size) const {
    uint8_t run[256];
    std::memset(run, value, sizeof run);
    for (jsize done = 0; done < size; done += static_cast<jsize>(sizeof run))
        copyWithin(array, run, std::min(static_cast<jsize>(sizeof run), size - done), at + done);
}

jstring JavaCall::newAscii(char* text) {
    for (char* byte = text; *byte; ++byte)
        if (*byte & 0x80) *byte = '?'; // Java takes modified UTF-8 alone
    jstring string = env->NewStringUTF(text);
    deferException();
    return string;
}

void JavaCall::deferException() {
    jthrowable raised = env->ExceptionOccurred();
    if (!raised) return;
    env->ExceptionClear();
    if (deferred)
        env->DeleteLocalRef(raised);
    else
        deferred = raised;
}
