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

ArrayCopy JavaCall::copyIn(jbyteArray array, jobject direct, jsize from, jsize size) const {
    ArrayCopy copy;
    const auto* bytes =
        static_cast<const uint8_t*>(array || !direct ? nullptr : env->GetDirectBufferAddress(direct));
    const jlong length = array   ? env->GetArrayLength(array)
                         : bytes ? env->GetDirectBufferCapacity(direct)
                                 : -1;
    if (from < 0 || size < 0 || size > length - from) return copy;
    copy.size = size;
    copy.bytes = mallocBuffer(static_cast<size_t>(size));
    if (!copy) return copy;
    if (array)
        env->GetByteArrayRegion(array, from, size, copy.as<jbyte>());
    else
        std::memcpy(copy.bytes.get(), bytes + from, static_cast<size_t>(size));
    return copy;
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

namespace {

// Of a character beyond 16 bits modified UTF-8 has the two surrogates, 1101 10vv vvww wwww and 1101 11yy yyzz
// zzzz, in three bytes each.
bool isSurrogate(const uint8_t* bytes, int top) { return bytes[0] == 0xED && bytes[1] >> 4 == top; }

} // namespace

JavaPath::JavaPath(JavaCall& call, jstring javaString) {
    const JavaString modified(call, javaString);
    if (!modified.get()) return;
    path = mallocBuffer(std::strlen(modified.get()) + 1);
    if (!path) return;
    const auto* from = reinterpret_cast<const uint8_t*>(modified.get());
    uint8_t* to = path.get();
    while (*from) {
        if (!isSurrogate(from, 0xA) || !isSurrogate(from + 3, 0xB)) {
            *to++ = *from++;
            continue;
        }
        const int plane = (from[1] & 15) + 1;
        *to++ = static_cast<uint8_t>(0xF0 | plane >> 2);
        *to++ = static_cast<uint8_t>(0x80 | (plane & 3) << 4 | (from[2] >> 2 & 15));
        *to++ = static_cast<uint8_t>(0x80 | (from[2] & 3) << 4 | (from[4] & 15));
        *to++ = from[5];
        from += 6;
    }
    *to = 0;
}
