#include "transcoder/MIRVProcessor.h"

#include "com_kelvane_media_transform_codec_MIRVProcessor.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

struct Setting {
    const char* key;
    int32_t CoderOut::*field;
};

constexpr Setting settings[] = {
    {"videoHeight", &CoderOut::height},    {"videoWidth", &CoderOut::width},
    {"videoBR", &CoderOut::bitrate},       {"videoFPS", &CoderOut::fps},
    {"videoKey", &CoderOut::keyInterval},  {"videoEncMode", &CoderOut::encMode},
    {"videoBRMax", &CoderOut::maxBitrate}, {"videoQPMax", &CoderOut::maxQp},
    {"videoQPMin", &CoderOut::minQp},      {"videoEncProfile", &CoderOut::profile},
    {"debug", &CoderOut::debug},
};

MIRVProcessor* processorOf(jlong handle) { return reinterpret_cast<MIRVProcessor*>(handle); }

} // namespace

MIRVProcessor::~MIRVProcessor() {
    decoder.reset();
    if (!outputs) return;
    for (uint32_t i = 0; i < count; ++i)
        outputs[i].close();
}

int64_t MIRVProcessor::open(uint32_t outputCount) {
    std::printf("opening %d\n", static_cast<int>(outputCount));
    if (outputCount > maxOutputs) return 0;
    outputs.reset(new (std::nothrow) CoderOut[outputCount]);
    if (!outputs) return 0;
    count = outputCount;
    return handle;
}

CoderOut* MIRVProcessor::claim(int32_t index) {
    for (uint32_t i = 0; i < count; ++i) {
        CoderOut& output = outputs[i];
        if (output.index == 0) output.index = index;
        if (output.index == index) return &output;
    }
    return nullptr;
}

void MIRVProcessor::apply(uint32_t index, const char* key, const char* value) {
    const auto id = static_cast<int32_t>(index);
    CoderOut* output = claim(id);
    if (!output) {
        std::printf("apply fail index %d key %s val %s\n", id, key, value);
        return;
    }
    std::printf("apply index %d key %s val %s\n", id, key, value);
    for (const Setting& setting : settings) {
        if (std::strcmp(key, setting.key) == 0) {
            output->*setting.field = std::atoi(value);
            return;
        }
    }
}

void MIRVProcessor::start() {
    std::printf("start %d\n", static_cast<int>(count));
    for (uint32_t i = 0; i < count; ++i) {
        CoderOut& output = outputs[i];
        if (output.height != 0 && output.width != 0) {
            std::printf("opening %d\n", output.index);
            output.open();
        }
    }
}

void MIRVProcessor::write(jobject listener, AVFrame* picture, JavaCall& java, uint32_t timestamp) {
    for (uint32_t i = 0; i < count; ++i) {
        CoderOut& output = outputs[i];
        AVPacket packet;
        av_init_packet(&packet);
        packet.data = nullptr;
        packet.size = 0;
        const int encoded = output.write(picture, &packet);
        const MallocBuffer copy(packet.data);
        findReceiveVideo(java, listener);
        if (!receiveVideoMethod) continue;
        jobject data = nullptr;
        if (encoded == 1) {
            // Over the encoder's own bytes, which stay until this output's next picture.
            data = java.env->NewDirectByteBuffer(output.coder->output.get(), output.coder->outputSize);
            java.deferException();
        }
        receiveVideo(java, listener, output.index, timestamp, data);
    }
}

void MIRVProcessor::dropFrame(JavaCall& java, jobject listener, uint32_t timestamp) {
    findReceiveVideo(java, listener);
    if (!receiveVideoMethod) return;
    for (uint32_t i = 0; i < count; ++i)
        receiveVideo(java, listener, outputs[i].index, timestamp, nullptr);
}

void MIRVProcessor::findReceiveVideo(JavaCall& java, jobject listener) {
    if (receiveVideoMethod && java.env->IsInstanceOf(listener, listenerClass)) return;
    forgetListener(java.env);
    jclass found = java.env->GetObjectClass(listener);
    jmethodID method = java.env->GetMethodID(found, "receiveVideo", "(IILjava/nio/ByteBuffer;)V");
    // A listener without the method is left alone: the exception that says so is not for the caller.
    java.env->ExceptionClear();
    if (method) {
        listenerClass = static_cast<jclass>(java.env->NewGlobalRef(found));
        if (listenerClass) receiveVideoMethod = method;
    }
    java.env->DeleteLocalRef(found);
}

void MIRVProcessor::receiveVideo(JavaCall& java, jobject listener, int32_t index, uint32_t timestamp,
                                 jobject data) {
    java.env->CallVoidMethod(listener, receiveVideoMethod, index, static_cast<jint>(timestamp), data);
    java.deferException();
    java.env->DeleteLocalRef(data);
}

void MIRVProcessor::forgetListener(JNIEnv* env) {
    env->DeleteGlobalRef(listenerClass);
    listenerClass = nullptr;
    receiveVideoMethod = nullptr;
}

JNIEXPORT jlong JNICALL Java_com_kelvane_media_transform_codec_MIRVProcessor_open(JNIEnv*, jclass,
                                                                                  jint outputs) {
    std::printf("MIRVProcessor_open outputs:%d\n", outputs);
    std::unique_ptr<MIRVProcessor> processor(new (std::nothrow) MIRVProcessor);
    if (!processor || processor->open(static_cast<uint32_t>(outputs)) == 0) return 0;
    processor->decoder.reset(avc_dec_ctx.NewCodec());
    if (!processor->decoder) return 0;
    processor->decoder->open();
    return processor.release()->handle;
}

JNIEXPORT jint JNICALL Java_com_kelvane_media_transform_codec_MIRVProcessor_start(JNIEnv*, jclass,
                                                                                  jlong handle) {
    if (MIRVProcessor* processor = processorOf(handle)) processor->start();
    return 1;
}

JNIEXPORT jint JNICALL Java_com_kelvane_media_transform_codec_MIRVProcessor_write(
    JNIEnv* env, jclass, jobject listener, jlong timestamp, jbyteArray data, jlong handle) {
    MIRVProcessor* processor = processorOf(handle);
    if (!processor || !data) return 0;
    JavaCall java(env);
    const ArrayCopy accessUnit = java.copyIn(data);
    if (!accessUnit || accessUnit.size < 1) return 0;
    const auto time = static_cast<uint32_t>(timestamp);
    VideoDecoder& decoder = *processor->decoder;
    const int result = decoder.decode(accessUnit.as<signed char>(), accessUnit.size, time);
    // Nothing is encoded for nobody: the next listener's first P picture would refer to one it never got.
    if (!listener) return result;
    if (decoder.pictureReady)
        processor->write(listener, decoder.frame.get(), java, time);
    else
        processor->dropFrame(java, listener, time);
    return result;
}

JNIEXPORT jint JNICALL Java_com_kelvane_media_transform_codec_MIRVProcessor_apply(JNIEnv* env, jclass,
                                                                                  jint index, jstring key,
                                                                                  jstring value,
                                                                                  jlong handle) {
    MIRVProcessor* processor = processorOf(handle);
    if (processor && (!key || !value)) return 0;
    std::puts("MIRVProcessor_apply ");
    if (!processor) return 0;
    JavaCall java(env);
    const JavaString keyText(java, key);
    const JavaString valueText(java, value);
    if (keyText.get() && valueText.get())
        processor->apply(static_cast<uint32_t>(index), keyText.get(), valueText.get());
    return 0;
}

JNIEXPORT jint JNICALL Java_com_kelvane_media_transform_codec_MIRVProcessor_close(JNIEnv* env, jclass,
                                                                                  jlong handle) {
    std::puts("MIRVProcessor_close ");
    if (MIRVProcessor* processor = processorOf(handle)) {
        processor->forgetListener(env);
        delete processor;
    }
    return 0;
}
