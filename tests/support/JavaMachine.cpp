#include "support/JavaMachine.h"

#include <gtest/gtest.h>

#include <cstring>

namespace {

JavaVM* machine() {
    static JavaVM* const vm = [] {
        std::string options[] = {"-Xcheck:jni", "-XX:+DisplayVMOutputToStderr", "-Xmx256m", "-Xrs",
                                 "-Djava.class.path=" TEST_JAR};
        JavaVMOption javaOptions[std::size(options)] = {};
        for (size_t i = 0; i < std::size(options); ++i)
            javaOptions[i].optionString = options[i].data();
        JavaVMInitArgs arguments{JNI_VERSION_10, static_cast<jint>(std::size(options)), javaOptions,
                                 JNI_FALSE};
        JavaVM* created = nullptr;
        JNIEnv* env = nullptr;
        if (JNI_CreateJavaVM(&created, reinterpret_cast<void**>(&env), &arguments) != JNI_OK) {
            std::fprintf(stderr, "the tests cannot make a Java virtual machine\n");
            std::exit(1);
        }
        return created;
    }();
    return vm;
}

template <class Result>
Result checked(Result result, const char* what) {
    if (!result || javaEnv()->ExceptionCheck()) {
        javaEnv()->ExceptionDescribe();
        ADD_FAILURE() << what;
    }
    return result;
}

} // namespace

JNIEnv* javaEnv() {
    JNIEnv* env = nullptr;
    if (machine()->GetEnv(reinterpret_cast<void**>(&env), JNI_VERSION_10) != JNI_OK)
        machine()->AttachCurrentThread(reinterpret_cast<void**>(&env), nullptr);
    return env;
}

jbyteArray javaArray(const Bytes& bytes) {
    const auto size = static_cast<jsize>(bytes.size());
    jbyteArray array = checked(javaEnv()->NewByteArray(size), "NewByteArray");
    javaEnv()->SetByteArrayRegion(array, 0, size, reinterpret_cast<const jbyte*>(bytes.data()));
    return array;
}

jbyteArray javaArray(int size, uint8_t fill) { return javaArray(Bytes(static_cast<size_t>(size), fill)); }

Bytes bytesOf(jbyteArray array) {
    Bytes bytes(static_cast<size_t>(javaEnv()->GetArrayLength(array)));
    javaEnv()->GetByteArrayRegion(array, 0, static_cast<jsize>(bytes.size()),
                                  reinterpret_cast<jbyte*>(bytes.data()));
    return bytes;
}

jstring javaString(const char* text) { return checked(javaEnv()->NewStringUTF(text), "NewStringUTF"); }

std::string takeException() {
    JNIEnv* env = javaEnv();
    jthrowable thrown = env->ExceptionOccurred();
    if (!thrown) return "";
    env->ExceptionClear();
    jclass classClass = checked(env->FindClass("java/lang/Class"), "Class");
    jmethodID getName = checked(env->GetMethodID(classClass, "getName", "()Ljava/lang/String;"), "getName");
    auto name = static_cast<jstring>(
        checked(env->CallObjectMethod(env->GetObjectClass(thrown), getName), "getName()"));
    const char* characters = env->GetStringUTFChars(name, nullptr);
    std::string text = characters;
    env->ReleaseStringUTFChars(name, characters);
    return text;
}

Listener::Listener(const char* className) {
    JNIEnv* env = javaEnv();
    type = checked(env->FindClass(className), className);
    jmethodID constructor = checked(env->GetMethodID(type, "<init>", "()V"), "constructor");
    listener = checked(env->NewObject(type, constructor), className);
}

void Listener::throwFrom(int call) {
    JNIEnv* env = javaEnv();
    env->SetIntField(listener, checked(env->GetFieldID(type, "throwFrom", "I"), "throwFrom"), call);
}

std::vector<Listener::Call> Listener::take() {
    JNIEnv* env = javaEnv();
    jmethodID method = checked(env->GetMethodID(type, "take", "()[[B"), "take");
    auto records = static_cast<jobjectArray>(checked(env->CallObjectMethod(listener, method), "take()"));
    std::vector<Call> calls;
    for (jsize i = 0; i < env->GetArrayLength(records); ++i) {
        // A record: index, timestamp and presence of data, each of 4 bytes, then the data.
        auto record = static_cast<jbyteArray>(env->GetObjectArrayElement(records, i));
        Bytes bytes = bytesOf(record);
        env->DeleteLocalRef(record);
        const auto number = [&](size_t at) {
            return static_cast<int>(uint32_t{bytes.at(at)} << 24 | uint32_t{bytes.at(at + 1)} << 16 |
                                    uint32_t{bytes.at(at + 2)} << 8 | uint32_t{bytes.at(at + 3)});
        };
        calls.push_back({number(0), number(4), number(8) == 1, Bytes(bytes.begin() + 12, bytes.end())});
    }
    return calls;
}
