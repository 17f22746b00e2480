// Calls the native methods of each engine over short streams, in an environment that stands in for Java's,
// for callgrind to count our own instructions. Each kind is dumped under its name and its number of calls,
// without its first calls.

#include "com_kelvane_media_transform_codec_AACDecoder.h"
#include "com_kelvane_media_transform_codec_AACEncoder.h"
#include "com_kelvane_media_transform_codec_AVCDecoder.h"
#include "com_kelvane_media_transform_codec_AVCEncoder.h"
#include "com_kelvane_media_transform_codec_AVCProcessor.h"
#include "com_kelvane_media_transform_codec_MIRVProcessor.h"
#include "com_kelvane_media_transform_codec_NOpusDecoder.h"
#include "com_kelvane_media_transform_codec_NOpusEncoder.h"

#include <valgrind/callgrind.h>

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <functional>
#include <iterator>
#include <string>
#include <vector>

#define Native(name) Java_com_kelvane_media_transform_codec_##name

namespace {

using Bytes = std::vector<jbyte>;

jbyteArray array(Bytes& bytes) { return reinterpret_cast<jbyteArray>(&bytes); }
Bytes& bytesOf(jarray object) { return *reinterpret_cast<Bytes*>(object); }
jstring string(const char* text) { return reinterpret_cast<jstring>(const_cast<char*>(text)); }

JNIEnv* environment() {
    static const JNINativeInterface_ functions = [] {
        JNINativeInterface_ made{};
        made.GetArrayLength = [](JNIEnv*, jarray object) {
            return static_cast<jsize>(bytesOf(object).size());
        };
        made.GetByteArrayRegion = [](JNIEnv*, jbyteArray from, jsize at, jsize size, jbyte* to) {
            std::memcpy(to, bytesOf(from).data() + at, static_cast<size_t>(size));
        };
        made.SetByteArrayRegion = [](JNIEnv*, jbyteArray to, jsize at, jsize size, const jbyte* from) {
            std::memcpy(bytesOf(to).data() + at, from, static_cast<size_t>(size));
        };
        made.GetStringUTFChars = [](JNIEnv*, jstring text, jboolean*) {
            return reinterpret_cast<const char*>(text);
        };
        made.ReleaseStringUTFChars = [](JNIEnv*, jstring, const char*) {};
        made.ExceptionOccurred = [](JNIEnv*) -> jthrowable { return nullptr; };
        made.ExceptionClear = [](JNIEnv*) {};
        made.DeleteLocalRef = [](JNIEnv*, jobject) {};
        made.DeleteGlobalRef = [](JNIEnv*, jobject) {};
        made.NewGlobalRef = [](JNIEnv*, jobject object) { return object; };
        made.GetObjectClass = [](JNIEnv*, jobject object) { return static_cast<jclass>(object); };
        made.IsInstanceOf = [](JNIEnv*, jobject, jclass) -> jboolean { return JNI_TRUE; };
        made.GetMethodID = [](JNIEnv*, jclass, const char*, const char*) {
            return reinterpret_cast<jmethodID>(1);
        };
        made.NewDirectByteBuffer = [](JNIEnv*, void* bytes, jlong) { return static_cast<jobject>(bytes); };
        made.CallVoidMethodV = [](JNIEnv*, jobject, jmethodID, va_list) {};
        return made;
    }();
    static JNIEnv made{&functions};
    return &made;
}

// In the second half of so many calls, which is like every later one.
void count(const char* name, int calls, const std::function<void(int)>& call) {
    for (int i = 0; i < calls; ++i) {
        if (i == calls / 2) CALLGRIND_ZERO_STATS;
        call(i);
    }
    CALLGRIND_DUMP_STATS_AT((std::string(name) + " " + std::to_string(calls - calls / 2)).c_str());
}

// At each slice that begins a picture, with what stands before it.
std::vector<Bytes> accessUnits(const char* path) {
    std::ifstream file(path, std::ios::binary);
    const Bytes stream(std::istreambuf_iterator<char>(file), {});
    std::vector<size_t> starts;
    bool inPicture = true;
    for (size_t at = 0; at + 5 < stream.size(); ++at) {
        if (stream[at] != 0 || stream[at + 1] != 0 || stream[at + 2] != 0 || stream[at + 3] != 1) continue;
        const int type = stream[at + 4] & 31;
        const bool slice = type == 1 || type == 5;
        if (starts.empty() || (inPicture && (!slice || stream[at + 5] & 0x80))) {
            starts.push_back(at);
            inPicture = false;
        }
        inPicture |= slice;
    }
    starts.push_back(stream.size());
    std::vector<Bytes> units;
    for (size_t i = 0; i + 1 < starts.size(); ++i)
        units.emplace_back(stream.begin() + static_cast<ptrdiff_t>(starts[i]),
                           stream.begin() + static_cast<ptrdiff_t>(starts[i + 1]));
    return units;
}

} // namespace

int main(int argumentCount, char** arguments) {
    if (argumentCount != 3) return 2;
    JNIEnv* env = environment();
    Native(AVCEncoder_loadLibrary)(env, nullptr, string(arguments[2]));
    std::vector<Bytes> units = accessUnits(arguments[1]); // 176x144
    const int calls = static_cast<int>(units.size());
    const auto unit = [&](int i) { return array(units[static_cast<size_t>(i)]); };
    Bytes info(6), picture(176 * 144 * 3 / 2), sizeInfo(4), timeInfo(4);

    const jlong decoder = Native(AVCDecoder_open)(env, nullptr);
    count("decode", calls, [&](int i) {
        Native(AVCDecoder_decode)(env, nullptr, unit(i), array(info), array(picture), decoder);
    });

    const jlong transcoder = Native(MIRVProcessor_open)(env, nullptr, 2);
    for (const auto& [id, width, height] : {std::tuple{1, "128", "96"}, {2, "90", "72"}}) {
        Native(MIRVProcessor_apply)(env, nullptr, id, string("videoWidth"), string(width), transcoder);
        Native(MIRVProcessor_apply)(env, nullptr, id, string("videoHeight"), string(height), transcoder);
        Native(MIRVProcessor_apply)(env, nullptr, id, string("videoBR"), string("200000"), transcoder);
    }
    Native(MIRVProcessor_start)(env, nullptr, transcoder);
    count("transcode", calls,
          [&](int i) { Native(MIRVProcessor_write)(env, nullptr, array(info), i, unit(i), transcoder); });

    const jlong pipeline = Native(AVCProcessor_open)(env, nullptr, 25, 300'000, 3, 0, 0, 0);
    count("pipeline", calls, [&](int i) {
        if (Native(AVCProcessor_write)(env, nullptr, i, unit(i), array(sizeInfo), pipeline) != 1) return;
        uint32_t size = 0;
        for (const jbyte byte : sizeInfo)
            size = size << 8 | static_cast<uint8_t>(byte);
        Bytes encoded(size);
        Native(AVCProcessor_read)(env, nullptr, array(timeInfo), array(encoded), pipeline);
    });

    Bytes block(4096), output(4096), config{0x11, static_cast<jbyte>(0x90)};
    for (size_t i = 0; i < block.size(); ++i)
        block[i] = static_cast<jbyte>(i * i % 251);
    std::vector<Bytes> packets;
    const jlong aacEncoder = Native(AACEncoder_open)(env, nullptr, 2, 48000);
    count("aac-encoder", 40, [&](int) {
        const jint size =
            Native(AACEncoder_encode)(env, nullptr, array(block), array(info), array(output), aacEncoder);
        if (size > 0) packets.emplace_back(output.begin(), output.begin() + size);
    });
    const jlong aacDecoder = Native(AACDecoder_open)(env, nullptr, array(config));
    count("aac-decoder", static_cast<int>(packets.size()), [&](int i) {
        Native(AACDecoder_decode)(env, nullptr, array(packets[static_cast<size_t>(i)]), array(info),
                                  array(output), aacDecoder);
    });
    packets.clear();
    const jlong opusEncoder = Native(NOpusEncoder_open)(env, nullptr, 2, 64000, 20);
    count("opus-encoder", 40, [&](int) {
        const jint size = Native(NOpusEncoder_encode)(env, nullptr, array(block), array(output), opusEncoder);
        packets.emplace_back(output.begin(), output.begin() + size);
    });
    Bytes pcm(5760 * 4);
    const jlong opusDecoder = Native(NOpusDecoder_open)(env, nullptr, 2, 0);
    count("opus-decoder", static_cast<int>(packets.size()), [&](int i) {
        Native(NOpusDecoder_decode)(env, nullptr, array(packets[static_cast<size_t>(i)]), array(pcm),
                                    opusDecoder);
    });
}
