#include "bridge/JavaCall.h"

#include <algorithm>
#include <cstring>

JavaCall::~JavaCall() {
    if (deferred) env->Throw(deferred);
}

ArrayCopy JavaCall::copyIn(jbyteArray array, size_t padding) const {
    ArrayCopy copy;
    copy.size = env->GetArrayLength(array);
    const auto length = static_cast<size_t>(copy.size);
    copy.bytes = mallocBuffer(length + padding);
    if (copy) {
        env->GetByteArrayRegion(array, 0, copy.size, copy.as<jbyte>());
        std::memset(copy.bytes.get() + length, 0, padding);
    }
    return copy;
}

void JavaCall::copyOut(jbyteArray array, const void* bytes, jsize size, jsize at) {
    env->SetByteArrayRegion(array, at, size, static_cast<const jbyte*>(bytes));
    deferException();
}

void JavaCall::fill(jbyteArray array, jsize at, uint8_t value, jsize size) {
    uint8_t run[256];
    std::memset(run, value, sizeof run);
    for (jsize done = 0; done < size; done += static_cast<jsize>(sizeof run))
        copyOut(array, run, std::min(static_cast<jsize>(sizeof run), size - done), at + done);
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
