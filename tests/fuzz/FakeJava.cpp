#include "fuzz/FakeJava.h"

#include <cstring>

namespace {

template <class Reference>
FakeObject& objectOf(Reference reference) {
    return *reinterpret_cast<FakeObject*>(reference);
}

jclass findClass(JNIEnv*, const char* name) { return reinterpret_cast<jclass>(const_cast<char*>(name)); }

jboolean isInstanceOf(JNIEnv*, jobject object, jclass type) {
    return std::strcmp(objectOf(object).type, reinterpret_cast<const char*>(type)) == 0;
}

jsize arrayLength(JNIEnv*, jarray array) {
    const FakeObject& object = objectOf(array);
    return static_cast<jsize>(object.bytes.size()) / object.elementSize;
}

void* pin(JNIEnv*, jarray array, jboolean*) { return objectOf(array).bytes.data(); }

const char* characters(JNIEnv*, jstring string, jboolean*) {
    return reinterpret_cast<const char*>(objectOf(string).bytes.data());
}

} // namespace

JNIEnv* fakeJava() {
    static const JNINativeInterface_ functions = [] {
        JNINativeInterface_ made{}; // what else is called is a null pointer
        made.FindClass = findClass;
        made.IsInstanceOf = isInstanceOf;
        made.GetArrayLength = arrayLength;
        made.GetByteArrayRegion = [](JNIEnv*, jbyteArray array, jsize at, jsize size, jbyte* bytes) {
            std::memcpy(bytes, objectOf(array).bytes.data() + at, static_cast<size_t>(size));
        };
        made.GetPrimitiveArrayCritical = pin;
        made.ReleasePrimitiveArrayCritical = [](JNIEnv*, jarray, void*, jint) {};
        made.GetStringUTFChars = characters;
        made.ReleaseStringUTFChars = [](JNIEnv*, jstring, const char*) {};
        made.ExceptionOccurred = [](JNIEnv*) -> jthrowable { return nullptr; };
        made.ExceptionClear = [](JNIEnv*) {};
        made.DeleteLocalRef = [](JNIEnv*, jobject) {};
        made.DeleteGlobalRef = [](JNIEnv*, jobject) {};
        made.NewGlobalRef = [](JNIEnv*, jobject object) { return object; };
        return made;
    }();
    static JNIEnv environment{&functions};
    return &environment;
}
