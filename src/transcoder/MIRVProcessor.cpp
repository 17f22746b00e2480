#include "transcoder/MIRVProcessor.h"

#include "bridge/Log.h"
#include "com_kelvane_media_transform_codec_MIRVProcessor.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

namespace {

constexpr Log say("Transcoder");

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

constexpr int rowAlignment = 64; // bytes

MIRVProcessor* processorOf(jlong handle) { return reinterpret_cast<MIRVProcessor*>(handle); }

// The processor of a call with callbacks; null for handle 0.
class WorkingProcessor {
public:
    WorkingProcessor(JNIEnv* environment, jlong handle) : env(environment), processor(processorOf(handle)) {
        if (processor) processor->enter();
    }
    ~WorkingProcessor() {
        if (processor) processor->leave(env);
    }
    WorkingProcessor(const WorkingProcessor&) = delete;
    WorkingProcessor& operator=(const WorkingProcessor&) = delete;

    explicit operator bool() const { return processor != nullptr; }
    MIRVProcessor* operator->() const { return processor; }
    MIRVProcessor& operator*() const { return *processor; }

private:
    JNIEnv* const env;
    MIRVProcessor* const processor;
};

// Null for a class without the method.
jmethodID receiveVideoOf(JNIEnv* env, jclass listenerClass) {
    jmethodID method = env->GetMethodID(listenerClass, "receiveVideo", "(IILjava/nio/ByteBuffer;)V");
    // A listener without the method is left alone: the exception that says so is not for the caller.
    env->ExceptionClear();
    return method;
}

void receiveVideo(JavaCall& java, jobject listener, jmethodID method, const CoderOut& output,
                  uint32_t timestamp, bool encoded) {
    jobject data = nullptr;
    if (encoded) {
        // Over the encoder's own bytes, which stay until this output's next picture.
        data = java.env->NewDirectByteBuffer(output.coder->output.get(), output.coder->outputSize);
        if (!data) java.deferException();
    }
    java.env->CallVoidMethod(listener, method, output.index, static_cast<jint>(timestamp), data);
    java.deferException();
    java.env->DeleteLocalRef(data);
}

// Null for a position that there is not.
CoderOut* renditionAt(jint position, jlong handle) {
    const MIRVProcessor* processor = processorOf(handle);
    if (!processor || static_cast<uint32_t>(position) >= processor->count) return nullptr;
    return &processor->outputs[static_cast<uint32_t>(position)];
}

// Returns the size of the access unit that lies in the encoder, whether or not the array has room for it.
jint copyEncoded(JNIEnv* env, const CoderOut& rendition, jbyteArray data) {
    if (!rendition.coder || !data) return 0;
    const NativeOpenH264Encoder& coder = *rendition.coder;
    if (coder.outputSize > 0 && env->GetArrayLength(data) >= coder.outputSize)
        JavaCall(env).copyWithin(data, coder.output.get(), coder.outputSize);
    return coder.outputSize;
}

// Empty when there is nothing to decode; the last picture is no longer at hand even then.
ArrayCopy copyAccessUnit(MIRVProcessor& processor, JavaCall& java, jbyteArray data) {
    processor.decoder->pictureReady = 0;
    if (!data || java.env->GetArrayLength(data) < 1) return {};
    return java.copyIn(data);
}

} // namespace

MIRVProcessor::~MIRVProcessor() {
    decoder.reset();
    if (!outputs) return;
    for (uint32_t i = 0; i < count; ++i)
        outputs[i].close();
}

void MIRVProcessor::close(JNIEnv* env) {
    if (!closed.exchange(true)) leave(env);
}

void MIRVProcessor::leave(JNIEnv* env) {
    if (--users > 0) return;
    forgetListener(env);
    delete this;
}

int64_t MIRVProcessor::open(uint32_t outputCount) {
    say.debug("opening %d\n", static_cast<int>(outputCount));
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
        say.warning("apply fail index %d key %s val %s\n", id, key, value);
        return;
    }
    say.debug("apply index %d key %s val %s\n", id, key, value);
    for (const Setting& setting : settings) {
        if (std::strcmp(key, setting.key) == 0) {
            output->*setting.field = std::atoi(value);
            return;
        }
    }
}

void MIRVProcessor::start() {
    say.debug("start %d\n", static_cast<int>(count));
    for (uint32_t i = 0; i < count; ++i) {
        CoderOut& output = outputs[i];
        if (output.height != 0 && output.width != 0) {
            say.debug("opening %d\n", output.index);
            output.open();
        }
    }
}

int32_t MIRVProcessor::addOutput() {
    if (count >= maxOutputs) return -1;
    std::unique_ptr<CoderOut[]> more(new (std::nothrow) CoderOut[count + 1]);
    if (!more) return -1;
    std::move(outputs.get(), outputs.get() + count, more.get());
    outputs = std::move(more);
    return static_cast<int32_t>(count++);
}

int MIRVProcessor::decode(const ArrayCopy& accessUnit, uint32_t time) {
    timestamp = time;
    return decoder->decode(accessUnit.as<signed char>(), accessUnit.size, time);
}

int MIRVProcessor::drain() {
    const int drained = decoder->drain();
    if (drained) timestamp = decoder->pictureTime;
    return drained;
}

void MIRVProcessor::write(jobject listener, AVFrame* picture, JavaCall& java, uint32_t time) {
    for (uint32_t i = 0; i < count; ++i) {
        const bool encoded = outputs[i].encode(picture);
        findReceiveVideo(java, listener);
        if (receiveVideoMethod) receiveVideo(java, listener, receiveVideoMethod, outputs[i], time, encoded);
    }
}

void MIRVProcessor::dropFrame(JavaCall& java, jobject listener, uint32_t time) {
    findReceiveVideo(java, listener);
    if (!receiveVideoMethod) return;
    for (uint32_t i = 0; i < count; ++i)
        receiveVideo(java, listener, receiveVideoMethod, outputs[i], time, false);
}

bool MIRVProcessor::encode(CoderOut& output) const {
    return decoder->pictureReady && output.encode(decoder->frame.get());
}

bool MIRVProcessor::makePlaces(uint32_t wanted) {
    places.reset(wanted <= maxPlaces ? new (std::nothrow) FrameOwner[wanted] : nullptr);
    placeCount = places ? wanted : 0;
    return places != nullptr;
}

bool MIRVProcessor::keep(uint32_t place) {
    if (place >= placeCount || !decoder->pictureReady) return false;
    const AVFrame& picture = *decoder->frame;
    FrameOwner& copy = places[place];
    if (!copy || copy->width != picture.width || copy->height != picture.height ||
        copy->format != picture.format) {
        copy.reset(av_frame_alloc());
        if (!copy) return false;
        copy->width = picture.width;
        copy->height = picture.height;
        copy->format = picture.format;
        if (av_frame_get_buffer(copy.get(), rowAlignment) < 0) {
            copy.reset();
            return false;
        }
    }
    if (av_frame_copy(copy.get(), &picture) < 0) {
        copy.reset();
        return false;
    }
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
    copy->pkt_pts = picture.pkt_pts;
#pragma GCC diagnostic pop
    return true;
}

AVFrame* MIRVProcessor::kept(uint32_t place) const {
    return place < placeCount ? places[place].get() : nullptr;
}

int MIRVProcessor::encode(JavaCall& java, jobject listener, uint32_t position) const {
    if (position >= count || !listener) return 0;
    CoderOut& output = outputs[position];
    const bool encoded = encode(output);
    // Looked up each time: what write() keeps is for one thread.
    jclass type = java.env->GetObjectClass(listener);
    jmethodID method = receiveVideoOf(java.env, type);
    java.env->DeleteLocalRef(type);
    if (method) receiveVideo(java, listener, method, output, timestamp, encoded);
    return encoded;
}

void MIRVProcessor::findReceiveVideo(JavaCall& java, jobject listener) {
    if (receiveVideoMethod && java.env->IsInstanceOf(listener, listenerClass)) return;
    forgetListener(java.env);
    jclass found = java.env->GetObjectClass(listener);
    if (jmethodID method = receiveVideoOf(java.env, found)) {
        listenerClass = static_cast<jclass>(java.env->NewGlobalRef(found));
        if (listenerClass) receiveVideoMethod = method;
    }
    java.env->DeleteLocalRef(found);
}

void MIRVProcessor::forgetListener(JNIEnv* env) {
    if (listenerClass) env->DeleteGlobalRef(listenerClass);
    listenerClass = nullptr;
    receiveVideoMethod = nullptr;
}

JNIEXPORT jlong JNICALL Java_com_kelvane_media_transform_codec_MIRVProcessor_open(JNIEnv* env, jclass,
                                                                                  jint outputs) {
    say.debug("MIRVProcessor_open outputs:%d\n", outputs);
    auto* processor = new (std::nothrow) MIRVProcessor;
    if (!processor) return 0;
    if (processor->open(static_cast<uint32_t>(outputs)) != 0)
        processor->decoder.reset(avc_dec_ctx.NewCodec());
    if (!processor->decoder) {
        processor->close(env);
        return 0;
    }
    processor->decoder->open();
    return processor->handle;
}

JNIEXPORT jint JNICALL Java_com_kelvane_media_transform_codec_MIRVProcessor_start(JNIEnv*, jclass,
                                                                                  jlong handle) {
    if (MIRVProcessor* processor = processorOf(handle)) processor->start();
    return 1;
}

JNIEXPORT jint JNICALL Java_com_kelvane_media_transform_codec_MIRVProcessor_write(
    JNIEnv* env, jclass, jobject listener, jlong timestamp, jbyteArray data, jlong handle) {
    const WorkingProcessor processor(env, handle);
    if (!processor) return 0;
    JavaCall java(env);
    const ArrayCopy accessUnit = copyAccessUnit(*processor, java, data);
    if (!accessUnit) return 0;
    const auto time = static_cast<uint32_t>(timestamp);
    const int result = processor->decode(accessUnit, time);
    const VideoDecoder& decoder = *processor->decoder;
    // Nothing is encoded for nobody: the next listener's first P picture would refer to one it never got.
    if (!listener) return result;
    if (decoder.pictureReady)
        processor->write(listener, decoder.frame.get(), java, time);
    else
        processor->dropFrame(java, listener, time);
    return result;
}

JNIEXPORT jint JNICALL Java_com_kelvane_media_transform_codec_MIRVProcessor_decode(JNIEnv* env, jclass,
                                                                                   jlong timestamp,
                                                                                   jbyteArray data,
                                                                                   jlong handle) {
    MIRVProcessor* processor = processorOf(handle);
    if (!processor) return 0;
    JavaCall java(env);
    const ArrayCopy accessUnit = copyAccessUnit(*processor, java, data);
    return accessUnit ? processor->decode(accessUnit, static_cast<uint32_t>(timestamp)) : 0;
}

JNIEXPORT jint JNICALL Java_com_kelvane_media_transform_codec_MIRVProcessor_decodePart(
    JNIEnv* env, jclass, jlong timestamp, jbyteArray data, jobject direct, jint from, jint size,
    jlong handle) {
    MIRVProcessor* processor = processorOf(handle);
    if (!processor) return 0;
    processor->decoder->pictureReady = 0;
    const ArrayCopy accessUnit = JavaCall(env).copyIn(data, direct, from, size);
    return accessUnit ? processor->decode(accessUnit, static_cast<uint32_t>(timestamp)) : 0;
}

JNIEXPORT jint JNICALL Java_com_kelvane_media_transform_codec_MIRVProcessor_encode(JNIEnv* env, jclass,
                                                                                   jint output,
                                                                                   jobject listener,
                                                                                   jlong handle) {
    const WorkingProcessor processor(env, handle);
    if (!processor) return 0;
    JavaCall java(env);
    return processor->encode(java, listener, static_cast<uint32_t>(output));
}

JNIEXPORT jint JNICALL Java_com_kelvane_media_transform_codec_MIRVProcessor_encodeInto(JNIEnv* env, jclass,
                                                                                       jint output,
                                                                                       jbyteArray data,
                                                                                       jlong handle) {
    CoderOut* rendition = renditionAt(output, handle);
    if (!rendition || !data || !processorOf(handle)->encode(*rendition)) return 0;
    return copyEncoded(env, *rendition, data);
}

JNIEXPORT jint JNICALL Java_com_kelvane_media_transform_codec_MIRVProcessor_makePlaces(JNIEnv*, jclass,
                                                                                       jint places,
                                                                                       jlong handle) {
    MIRVProcessor* processor = processorOf(handle);
    return processor && processor->makePlaces(static_cast<uint32_t>(places));
}

JNIEXPORT jint JNICALL Java_com_kelvane_media_transform_codec_MIRVProcessor_keep(JNIEnv*, jclass, jint place,
                                                                                 jlong handle) {
    MIRVProcessor* processor = processorOf(handle);
    return processor && processor->keep(static_cast<uint32_t>(place));
}

JNIEXPORT jint JNICALL Java_com_kelvane_media_transform_codec_MIRVProcessor_encodeKept(
    JNIEnv* env, jclass, jint output, jint place, jbyteArray data, jlong handle) {
    CoderOut* rendition = renditionAt(output, handle);
    AVFrame* picture = rendition ? processorOf(handle)->kept(static_cast<uint32_t>(place)) : nullptr;
    if (!picture || !data || !rendition->encode(picture)) return 0;
    return copyEncoded(env, *rendition, data);
}

JNIEXPORT jint JNICALL Java_com_kelvane_media_transform_codec_MIRVProcessor_copyEncoded(JNIEnv* env, jclass,
                                                                                        jint output,
                                                                                        jbyteArray data,
                                                                                        jlong handle) {
    const CoderOut* rendition = renditionAt(output, handle);
    return rendition ? copyEncoded(env, *rendition, data) : 0;
}

JNIEXPORT jint JNICALL Java_com_kelvane_media_transform_codec_MIRVProcessor_drain(JNIEnv* env, jclass,
                                                                                  jobject listener,
                                                                                  jlong handle) {
    const WorkingProcessor processor(env, handle);
    if (!processor || processor->drain() != 1) return 0;
    JavaCall java(env);
    if (listener) processor->write(listener, processor->decoder->frame.get(), java, processor->timestamp);
    return 1;
}

JNIEXPORT jlong JNICALL Java_com_kelvane_media_transform_codec_MIRVProcessor_pictureTime(JNIEnv*, jclass,
                                                                                         jlong handle) {
    const MIRVProcessor* processor = processorOf(handle);
    return processor ? processor->decoder->pictureTime : 0;
}

JNIEXPORT jlong JNICALL Java_com_kelvane_media_transform_codec_MIRVProcessor_pictureInfo(JNIEnv*, jclass,
                                                                                         jlong handle) {
    const MIRVProcessor* processor = processorOf(handle);
    if (!processor || !processor->decoder->pictureReady) return 0;
    constexpr int heightAt = 16, interlacedAt = 32, keyAt = 33;
    const AVFrame& picture = *processor->decoder->frame;
    return picture.width | jlong{picture.height} << heightAt |
           jlong{picture.interlaced_frame} << interlacedAt | jlong{picture.key_frame} << keyAt;
}

JNIEXPORT jint JNICALL Java_com_kelvane_media_transform_codec_MIRVProcessor_outcome(JNIEnv*, jclass,
                                                                                    jlong handle) {
    const MIRVProcessor* processor = processorOf(handle);
    if (!processor) return static_cast<jint>(DecodeOutcome::noPicture);
    VideoDecoder& decoder = *processor->decoder;
    constexpr jint needsKey = 256;
    const auto outcome = static_cast<jint>(decoder.outcome());
    return outcome + (decoder.needsKey ? needsKey : 0);
}

JNIEXPORT jint JNICALL Java_com_kelvane_media_transform_codec_MIRVProcessor_status(JNIEnv*, jclass,
                                                                                   jint output,
                                                                                   jlong handle) {
    constexpr jint notOpened = 2;
    const CoderOut* rendition = renditionAt(output, handle);
    return rendition && rendition->coder ? rendition->coder->status : notOpened;
}

JNIEXPORT jint JNICALL Java_com_kelvane_media_transform_codec_MIRVProcessor_requestKey(JNIEnv*, jclass,
                                                                                       jint output,
                                                                                       jlong handle) {
    const CoderOut* rendition = renditionAt(output, handle);
    return rendition && rendition->coder ? rendition->coder->requestKey() : 0;
}

JNIEXPORT jint JNICALL Java_com_kelvane_media_transform_codec_MIRVProcessor_setBitrate(JNIEnv*, jclass,
                                                                                       jint output,
                                                                                       jint bitsPerSecond,
                                                                                       jlong handle) {
    CoderOut* rendition = renditionAt(output, handle);
    return rendition && rendition->setBitrate(bitsPerSecond);
}

JNIEXPORT jint JNICALL Java_com_kelvane_media_transform_codec_MIRVProcessor_setFrameRate(
    JNIEnv*, jclass, jint output, jfloat picturesPerSecond, jlong handle) {
    CoderOut* rendition = renditionAt(output, handle);
    return rendition && rendition->setFrameRate(picturesPerSecond);
}

JNIEXPORT jint JNICALL Java_com_kelvane_media_transform_codec_MIRVProcessor_addOutput(JNIEnv*, jclass,
                                                                                      jlong handle) {
    MIRVProcessor* processor = processorOf(handle);
    return processor ? processor->addOutput() : -1;
}

JNIEXPORT jint JNICALL Java_com_kelvane_media_transform_codec_MIRVProcessor_startOutput(JNIEnv*, jclass,
                                                                                        jint output,
                                                                                        jlong handle) {
    CoderOut* rendition = renditionAt(output, handle);
    if (!rendition) return 0;
    rendition->released = false;
    if (rendition->width != 0 && rendition->height != 0) rendition->open();
    return 1;
}

JNIEXPORT jint JNICALL Java_com_kelvane_media_transform_codec_MIRVProcessor_releaseOutput(JNIEnv*, jclass,
                                                                                          jint output,
                                                                                          jlong handle) {
    CoderOut* rendition = renditionAt(output, handle);
    if (!rendition) return 0;
    rendition->release();
    return 1;
}

JNIEXPORT jint JNICALL Java_com_kelvane_media_transform_codec_MIRVProcessor_encodedAs(JNIEnv*, jclass,
                                                                                      jint output,
                                                                                      jlong handle) {
    const CoderOut* rendition = renditionAt(output, handle);
    if (!rendition || !rendition->coder || rendition->coder->outputSize == 0) return 0;
    return rendition->coder->pictureType << 8 | rendition->coder->averageQuantiser();
}

JNIEXPORT jint JNICALL Java_com_kelvane_media_transform_codec_MIRVProcessor_failure(JNIEnv*, jclass,
                                                                                    jint output,
                                                                                    jlong handle) {
    const CoderOut* rendition = renditionAt(output, handle);
    return rendition ? rendition->failure : 0;
}

JNIEXPORT jint JNICALL Java_com_kelvane_media_transform_codec_MIRVProcessor_renew(JNIEnv*, jclass,
                                                                                  jint output, jlong handle) {
    const CoderOut* rendition = renditionAt(output, handle);
    return rendition && rendition->coder && rendition->coder->renew();
}

JNIEXPORT jint JNICALL Java_com_kelvane_media_transform_codec_MIRVProcessor_apply(JNIEnv* env, jclass,
                                                                                  jint index, jstring key,
                                                                                  jstring value,
                                                                                  jlong handle) {
    say.debug("MIRVProcessor_apply \n");
    MIRVProcessor* processor = processorOf(handle);
    if (!processor || !key || !value) return 0;
    JavaCall java(env);
    const JavaString keyText(java, key);
    const JavaString valueText(java, value);
    if (keyText.get() && valueText.get())
        processor->apply(static_cast<uint32_t>(index), keyText.get(), valueText.get());
    return 0;
}

JNIEXPORT jint JNICALL Java_com_kelvane_media_transform_codec_MIRVProcessor_close(JNIEnv* env, jclass,
                                                                                  jlong handle) {
    say.debug("MIRVProcessor_close \n");
    if (MIRVProcessor* processor = processorOf(handle)) processor->close(env);
    return 0;
}
