#include "processor/AVCProcessor.h"

#include "bridge/JavaCall.h"
#include "bridge/Log.h"
#include "com_kelvane_media_transform_codec_AVCProcessor.h"
#include "video/I420.h"

extern "C" {
#include <libavformat/avformat.h>
}

#include <cstring>

// FFmpeg 4 has deprecated av_register_all.
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"

static CLibLoaderImpl loader;

namespace {

constexpr Log say("Pipeline");

void copyOutSize(JavaCall& java, jbyteArray sizeInfo, int newOutput) {
    if (newOutput < 0) return;
    uint8_t size[4];
    putBigEndian(size, sizeof size, static_cast<uint32_t>(newOutput));
    java.copyOut(sizeInfo, size, sizeof size);
}

jint writeCopy(VideoProcessor& pipeline, JavaCall& java, ArrayCopy input, uint32_t time,
               jbyteArray sizeInfo) {
    if (!input) return 0;
    int result = 1;
    int newOutput = -1;
    if (pipeline.mode == VideoProcessor::passThroughMode) {
        newOutput = input.size;
        pipeline.passThrough(std::move(input.bytes), input.size, time);
    } else {
        result = pipeline.process(input.as<signed char>(), input.size, time, newOutput);
    }
    copyOutSize(java, sizeInfo, newOutput);
    return result;
}

} // namespace

VideoProcessor* VideoProcessorContext::NewProcessor() const {
    auto* pipeline = new (std::nothrow) VideoProcessor;
    if (pipeline) pipeline->handle = reinterpret_cast<int64_t>(pipeline);
    return pipeline;
}

bool VideoProcessorContext::RemoveProcessor(int64_t handle) const {
    VideoProcessor* pipeline = GetProcessor(handle);
    if (!pipeline) return false;
    pipeline->close();
    delete pipeline;
    return true;
}

void VideoProcessor::brew(unsigned int guid) {
    if (processor) {
        callModule("Close", [&] { processor->Close(); });
        callModule("~CModuleProcessor", [&] { delete processor; });
        callModule.finish();
        processor = nullptr;
        --loader.liveProcessors;
    }
    ProcessorFunctionPointers module;
    loader.GetLibFunctions(guid, &module);
    if (!module.create_video_processor || !module.destroy_video_processor) {
        say.warning("Module not found. %d  Did you forget to preload it? \n", static_cast<int>(guid));
        return;
    }
    callModule.finish(reinterpret_cast<const void*>(module.create_video_processor));
    processor = callModule("CreateVideoProcessor", module.create_video_processor);
    if (processor)
        ++loader.liveProcessors;
    else if (!callModule.thrown)
        say.error("module %s made no processor: CreateVideoProcessor returned null\n", callModule.name());
}

void VideoProcessor::unbrew() {
    if (!processor) return;
    const unsigned int guid = callModule("GetGuid", [&] { return processor->GetGuid(); });
    ProcessorFunctionPointers module;
    loader.GetLibFunctions(guid, &module);
    if (!module.destroy_video_processor) return;
    callModule("DestroyVideoProcessor", [&] { module.destroy_video_processor(processor); });
    processor = nullptr;
    --loader.liveProcessors;
}

void VideoProcessor::makeEncoder(const AVFrame& picture) {
    encoder.reset();
    encoder.reset(avc_enc_ctx.NewCodec());
    if (!encoder) return;
    encoder->width = picture.width;
    encoder->height = picture.height;
    encoder->frameRate = frameRate;
    encoder->bitRate = bitRate;
    encoder->open();
}

void VideoProcessor::fitEncoder(const AVFrame& picture) {
    const auto width = static_cast<uint16_t>(picture.width);
    const auto height = static_cast<uint16_t>(picture.height);
    if (!encoder) {
        say.debug("AVCProcessor_create_encoder  %d  %d\n", picture.width, picture.height);
        makeEncoder(picture);
        if (!processor) return;
        say.debug("AVCProcessor_open_module\n");
        uint8_t configuration[] = {mode, option1, option2, option3};
        callModule("Open", [&] {
            return processor->Open(width, height, configuration, configuration + 1, configuration + 2,
                                   configuration + 3);
        });
    } else if (picture.width != encoder->width || picture.height != encoder->height) {
        say.debug("AVCProcessor_reinit_encodere\n");
        makeEncoder(picture);
        if (!processor) return;
        say.debug("AVCProcessor_reinit_module\n");
        callModule("Reinit", [&] { return processor->Reinit(width, height); });
    }
}

int VideoProcessor::process(signed char* data, int size, uint32_t timestamp, int& newOutput) {
    forgetPicture();
    const int decoded = decoder->decode(data, size, timestamp);
    if (decoded == -1) say.warning("warning, corrupt input stream\n");
    return decoded == 1 ? processPicture(timestamp, newOutput) : decoded;
}

int VideoProcessor::drain(int& newOutput) {
    forgetPicture();
    return decoder->drain() == 1 ? processPicture(decoder->pictureTime, newOutput) : 0;
}

int VideoProcessor::processPicture(uint32_t timestamp, int& newOutput) {
    const AVFrame& picture = *decoder->frame;
    MallocBuffer packed = packPicture(picture);
    if (!packed) return 0;
    const int packedSize = packedPictureSize(picture.width, picture.height);
    fitEncoder(picture);

    auto time = static_cast<int>(timestamp);
    const auto keeps = [&] { return processor->Process(packed.get(), packedSize, &time); };
    if (processor && (callModule("Process", keeps) == 0 || !encoder)) return 1;
    newOutput = 0;
    failure = -1;
    if (!encoder) return 1;
    unencoded = {std::move(packed), packedSize, timestamp, time};
    return encodePicture(newOutput);
}

int VideoProcessor::encodePicture(int& newOutput) {
    auto* const picture = reinterpret_cast<signed char*>(unencoded.packed.get());
    const int encoded = encoder->encode(picture, unencoded.size, unencoded.timestamp);
    failure = encoder->failure;
    if (failure != 0) return encoded;
    // It is encoded, or skipped.
    const MallocBuffer packed = std::move(unencoded.packed);
    if (encoded != 1 || encoder->encodedSize <= 0) return encoded;
    const auto encodedSize = static_cast<size_t>(encoder->encodedSize);
    MallocBuffer accessUnit = mallocBuffer(encodedSize);
    if (!accessUnit) {
        failure = -1;
        return 0;
    }
    std::memcpy(accessUnit.get(), packed.get(), encodedSize);
    output = std::move(accessUnit);
    outputSize = newOutput = encoder->encodedSize;
    outputTimestamp = processor ? unencoded.moduleTime : encoder->encodedTimestamp;
    return 1;
}

int VideoProcessor::retry(int& newOutput) {
    if (!encoder || !unencoded.packed) return 0;
    newOutput = 0;
    return encodePicture(newOutput);
}

bool VideoProcessor::requestKey() {
    if (encoder) encoder->requestKey(); // the first picture of one to come is a key frame
    return mode != passThroughMode;
}

bool VideoProcessor::setBitRate(int32_t bitsPerSecond) {
    if (mode == passThroughMode || (encoder && encoder->status == 0 && !encoder->setBitRate(bitsPerSecond)))
        return false;
    bitRate = bitsPerSecond;
    return true;
}

void VideoProcessor::forgetPicture() {
    unencoded.packed.reset();
    failure = 0;
}

void VideoProcessor::passThrough(MallocBuffer data, int size, uint32_t timestamp) {
    output = std::move(data);
    outputSize = size;
    outputTimestamp = static_cast<int32_t>(timestamp);
    if (processor)
        callModule("Process", [&] { return processor->Process(output.get(), size, &outputTimestamp); });
}

void VideoProcessor::close() {
    if (decoder) decoder->close();
    if (encoder) encoder->close();
    if (processor) callModule("Close", [&] { processor->Close(); });
    processor = nullptr;
    output.reset();
    outputSize = 0;
}

JNIEXPORT jint JNICALL Java_com_kelvane_media_transform_codec_AVCProcessor_loadLibrary(JNIEnv* env, jclass,
                                                                                       jstring path) {
    if (!path) return 0;
    JavaCall java(env);
    const JavaPath file(java, path);
    if (!file.get()) return 0;
    say.info("loading %s\n", file.get());
    const int guid = loader.LoadLib(file.get());
    say.info("found %d\n", guid);
    return guid;
}

JNIEXPORT jstring JNICALL Java_com_kelvane_media_transform_codec_AVCProcessor_problem(JNIEnv* env, jclass,
                                                                                      jstring path) {
    if (!path) return nullptr;
    JavaCall java(env);
    const JavaPath file(java, path);
    char text[512];
    if (!file.get() || !findModuleProblem(file.get(), text, sizeof text)) return nullptr;
    return java.newAscii(text);
}

JNIEXPORT jlong JNICALL Java_com_kelvane_media_transform_codec_AVCProcessor_open(JNIEnv*, jclass,
                                                                                 jint frameRate, jint bitRate,
                                                                                 jint mode, jint option1,
                                                                                 jint option2, jint option3) {
    av_register_all();
    VideoProcessor* pipeline = proc_ctx.NewProcessor();
    if (!pipeline) return 0;
    pipeline->decoder.reset(avc_dec_ctx.NewCodec());
    if (!pipeline->decoder) {
        proc_ctx.RemoveProcessor(pipeline->handle);
        return 0;
    }
    pipeline->decoder->open();
    pipeline->mode = static_cast<uint8_t>(mode);
    pipeline->option1 = static_cast<uint8_t>(option1);
    pipeline->option2 = static_cast<uint8_t>(option2);
    pipeline->option3 = static_cast<uint8_t>(option3);
    pipeline->frameRate = frameRate;
    pipeline->bitRate = bitRate;
    return pipeline->handle;
}

JNIEXPORT jint JNICALL Java_com_kelvane_media_transform_codec_AVCProcessor_brew(JNIEnv*, jclass, jint guid,
                                                                                jlong handle) {
    VideoProcessor* pipeline = proc_ctx.GetProcessor(handle);
    if (!pipeline) return 0;
    pipeline->brew(static_cast<unsigned int>(guid));
    return 1;
}

JNIEXPORT jint JNICALL Java_com_kelvane_media_transform_codec_AVCProcessor_apply(JNIEnv* env, jclass,
                                                                                 jlong guid, jstring key,
                                                                                 jstring value,
                                                                                 jlong handle) {
    VideoProcessor* pipeline = proc_ctx.GetProcessor(handle);
    if (!pipeline || !pipeline->processor || !key || !value) return -1;
    CModuleProcessor& processor = *pipeline->processor;
    ModuleCaller& callModule = pipeline->callModule;
    if (guid != jlong{callModule("GetGuid", [&] { return processor.GetGuid(); })}) return -1;
    JavaCall java(env);
    const JavaString keyText(java, key);
    const JavaString valueText(java, value);
    if (!keyText.get() || !valueText.get()) return -1;
    return callModule("Apply", [&] { return processor.Apply(keyText.get(), valueText.get()); });
}

JNIEXPORT jint JNICALL Java_com_kelvane_media_transform_codec_AVCProcessor_write(
    JNIEnv* env, jclass, jlong timestamp, jbyteArray data, jbyteArray sizeInfo, jlong handle) {
    VideoProcessor* pipeline = proc_ctx.GetProcessor(handle);
    if (!pipeline || !data || !sizeInfo) return 0;
    JavaCall java(env);
    return writeCopy(*pipeline, java, java.copyIn(data), static_cast<uint32_t>(timestamp), sizeInfo);
}

JNIEXPORT jint JNICALL Java_com_kelvane_media_transform_codec_AVCProcessor_writePart(
    JNIEnv* env, jclass, jlong timestamp, jbyteArray data, jobject direct, jint from, jint size,
    jbyteArray sizeInfo, jlong handle) {
    VideoProcessor* pipeline = proc_ctx.GetProcessor(handle);
    if (!pipeline || !sizeInfo) return 0;
    JavaCall java(env);
    return writeCopy(*pipeline, java, java.copyIn(data, direct, from, size), static_cast<uint32_t>(timestamp),
                     sizeInfo);
}

JNIEXPORT jint JNICALL Java_com_kelvane_media_transform_codec_AVCProcessor_drain(JNIEnv* env, jclass,
                                                                                 jbyteArray sizeInfo,
                                                                                 jlong handle) {
    VideoProcessor* pipeline = proc_ctx.GetProcessor(handle);
    if (!pipeline || !sizeInfo || pipeline->mode == VideoProcessor::passThroughMode) return 0;
    JavaCall java(env);
    int newOutput = -1;
    const int result = pipeline->drain(newOutput);
    copyOutSize(java, sizeInfo, newOutput);
    return result;
}

JNIEXPORT jint JNICALL Java_com_kelvane_media_transform_codec_AVCProcessor_failure(JNIEnv*, jclass,
                                                                                   jlong handle) {
    const VideoProcessor* pipeline = proc_ctx.GetProcessor(handle);
    return pipeline ? pipeline->failure : 0;
}

JNIEXPORT jint JNICALL Java_com_kelvane_media_transform_codec_AVCProcessor_requestKey(JNIEnv*, jclass,
                                                                                      jlong handle) {
    VideoProcessor* pipeline = proc_ctx.GetProcessor(handle);
    return pipeline && pipeline->requestKey();
}

JNIEXPORT jint JNICALL Java_com_kelvane_media_transform_codec_AVCProcessor_setBitrate(JNIEnv*, jclass,
                                                                                      jint bitsPerSecond,
                                                                                      jlong handle) {
    VideoProcessor* pipeline = proc_ctx.GetProcessor(handle);
    return pipeline && pipeline->setBitRate(bitsPerSecond);
}

JNIEXPORT jint JNICALL Java_com_kelvane_media_transform_codec_AVCProcessor_renew(JNIEnv*, jclass,
                                                                                 jlong handle) {
    const VideoProcessor* pipeline = proc_ctx.GetProcessor(handle);
    return pipeline && pipeline->encoder && pipeline->encoder->renew();
}

JNIEXPORT jint JNICALL Java_com_kelvane_media_transform_codec_AVCProcessor_retry(JNIEnv* env, jclass,
                                                                                 jbyteArray sizeInfo,
                                                                                 jlong handle) {
    VideoProcessor* pipeline = proc_ctx.GetProcessor(handle);
    if (!pipeline || !sizeInfo) return 0;
    JavaCall java(env);
    int newOutput = -1;
    const int result = pipeline->retry(newOutput);
    copyOutSize(java, sizeInfo, newOutput);
    return result;
}

JNIEXPORT jlong JNICALL Java_com_kelvane_media_transform_codec_AVCProcessor_pictureTime(JNIEnv*, jclass,
                                                                                        jlong handle) {
    const VideoProcessor* pipeline = proc_ctx.GetProcessor(handle);
    return pipeline ? pipeline->decoder->pictureTime : 0;
}

JNIEXPORT jint JNICALL Java_com_kelvane_media_transform_codec_AVCProcessor_attached(JNIEnv*, jclass,
                                                                                    jlong handle) {
    const VideoProcessor* pipeline = proc_ctx.GetProcessor(handle);
    return pipeline && pipeline->processor;
}

JNIEXPORT jint JNICALL Java_com_kelvane_media_transform_codec_AVCProcessor_read(JNIEnv* env, jclass,
                                                                                jbyteArray timestampInfo,
                                                                                jbyteArray data,
                                                                                jlong handle) {
    VideoProcessor* pipeline = proc_ctx.GetProcessor(handle);
    if (!pipeline || pipeline->outputSize == 0 || !timestampInfo || !data) return 0;
    JavaCall java(env);
    java.copyOut(data, pipeline->output.get(), pipeline->outputSize);
    uint8_t time[4];
    putBigEndian(time, sizeof time, static_cast<uint32_t>(pipeline->outputTimestamp));
    java.copyOut(timestampInfo, time, sizeof time);
    pipeline->outputSize = 0;
    pipeline->output.reset();
    return 0;
}

JNIEXPORT jboolean JNICALL Java_com_kelvane_media_transform_codec_AVCProcessor_close(JNIEnv*, jclass,
                                                                                     jlong handle) {
    if (VideoProcessor* pipeline = proc_ctx.GetProcessor(handle)) pipeline->unbrew();
    return proc_ctx.RemoveProcessor(handle);
}
