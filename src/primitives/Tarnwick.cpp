#include "com_kelvane_media_Tarnwick.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/imgutils.h>
#include <libavutil/opt.h>
#include <libavutil/pixdesc.h>
#include <libswscale/swscale.h>
}

#include <algorithm>
#include <cstring>
#include <iterator>

// AVPicture and avpicture_fill are deprecated in FFmpeg 4.
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"

namespace {

template <class Type>
Type* at(jlong address) {
    return reinterpret_cast<Type*>(address);
}

// A number that names no format is none: such a value of the enumeration would be undefined, and libswscale
// ends the process over it.
AVPixelFormat pixelFormat(jint number) {
    return number >= 0 && number < AV_PIX_FMT_NB ? static_cast<AVPixelFormat>(number) : AV_PIX_FMT_NONE;
}

// The size of an array of a primitive type; -1 for any other object and for null.
int64_t bytesOf(JNIEnv* env, jobject array) {
    constexpr struct {
        const char* name;
        int64_t elementSize;
    } types[] = {{"[B", 1}, {"[I", 4}, {"[S", 2}, {"[J", 8}, {"[C", 2}, {"[F", 4}, {"[D", 8}, {"[Z", 1}};
    if (!array) return -1;
    for (const auto& type : types) {
        jclass arrayClass = env->FindClass(type.name);
        if (!arrayClass) {
            env->ExceptionClear();
            return -1;
        }
        const bool matches = env->IsInstanceOf(array, arrayClass);
        env->DeleteLocalRef(arrayClass);
        if (matches) return env->GetArrayLength(static_cast<jarray>(array)) * type.elementSize;
    }
    return -1;
}

// A picture at the start of a Java array.
struct JavaPicture {
    jobject array;
    AVPixelFormat format;
    int width;
    int height;

    int size() const { return av_image_get_buffer_size(format, width, height, 1); }
};

// libswscale's vector code reads and writes beyond the rows of a picture, the last one included, and faults
// on some unaligned planes. Its work was found to stay within pictures that are aligned like this, except for
// the formats whose pixels are no fraction of a vector or do not begin with a colour.
bool staysWithin(const AVPicture& picture, AVPixelFormat format) {
    constexpr int rowAlignment = 32;
    constexpr uintptr_t planeAlignment = 16;
    constexpr AVPixelFormat runningOver[] = {AV_PIX_FMT_RGB24, AV_PIX_FMT_BGR24, AV_PIX_FMT_ARGB,
                                             AV_PIX_FMT_ABGR,  AV_PIX_FMT_0RGB,  AV_PIX_FMT_0BGR};
    for (int i = 0; i < 4; ++i)
        if (picture.linesize[i] % rowAlignment != 0 ||
            reinterpret_cast<uintptr_t>(picture.data[i]) % planeAlignment != 0)
            return false;
    return std::ranges::find(runningOver, format) == std::end(runningOver);
}

// A picture in its pinned array, for libswscale: in place where it can be, else in a copy with padding.
class PinnedPicture {
public:
    PinnedPicture(JNIEnv* environment, const JavaPicture& javaPicture, bool alwaysPadded = false)
        : env(environment), java(javaPicture) {
        bytes = env->GetPrimitiveArrayCritical(static_cast<jarray>(java.array), nullptr);
        if (!bytes) return;
        const int filled =
            avpicture_fill(&packed, static_cast<uint8_t*>(bytes), java.format, java.width, java.height);
        // FFmpeg sees a palette behind the pictures of formats that have a fixed one; nothing uses it.
        if (filled > java.size()) packed.data[1] = nullptr;
        if (!alwaysPadded && staysWithin(packed, java.format)) {
            work = &packed;
        } else if (const int room = av_image_alloc(padded.data, padded.linesize, java.width, java.height,
                                                   java.format, alignment);
                   room >= 0) {
            std::memset(padded.data[0] + room, 0, alignment);
            load();
            work = &padded;
        }
    }
    ~PinnedPicture() {
        if (bytes) env->ReleasePrimitiveArrayCritical(static_cast<jarray>(java.array), bytes, 0);
        av_freep(&padded.data[0]);
    }
    PinnedPicture(const PinnedPicture&) = delete;
    PinnedPicture& operator=(const PinnedPicture&) = delete;

    // Null when the array could not be pinned or there is no memory.
    const AVPicture* planes() const { return work; }
    // Brings what was written to planes() into the array.
    void store() {
        if (work != &padded) return;
        const uint8_t* source[4];
        std::copy_n(padded.data, 4, source);
        av_image_copy(packed.data, packed.linesize, source, padded.linesize, java.format, java.width,
                      java.height);
    }

private:
    static constexpr int alignment = 64; // of rows, and as many bytes are behind the last one

    // The chroma of an odd last column takes in the pixel behind the row. As in the array itself, that is the
    // next row's first; behind the last row of all it is 0.
    void load() {
        const uint8_t* end = packed.data[0] + java.size();
        const int chromaShift = av_pix_fmt_desc_get(java.format)->log2_chroma_h;
        for (int plane = 0; plane < 4 && packed.data[plane]; ++plane) {
            const uint8_t* from = packed.data[plane];
            if (packed.linesize[plane] == 0) { // a palette
                std::copy(from, end, padded.data[plane]);
                continue;
            }
            const int rows =
                plane == 1 || plane == 2 ? AV_CEIL_RSHIFT(java.height, chromaShift) : java.height;
            uint8_t* to = padded.data[plane];
            for (int row = 0; row < rows; ++row, from += packed.linesize[plane]) {
                const auto present = std::min<ptrdiff_t>(padded.linesize[plane], end - from);
                to = std::copy_n(from, present, to);
                to = std::fill_n(to, padded.linesize[plane] - present, uint8_t{0});
            }
        }
    }

    JNIEnv* env;
    JavaPicture java;
    void* bytes = nullptr;
    AVPicture packed{};
    AVPicture padded{};
    const AVPicture* work = nullptr;
};

int optionOf(SwsContext* context, const char* name) {
    int64_t value = 0;
    av_opt_get_int(context, name, 0, &value);
    return static_cast<int>(value);
}

struct ContextSide {
    const char* format;
    const char* width;
    const char* height;
};
constexpr ContextSide sourceSide{"src_format", "srcw", "srch"};
constexpr ContextSide targetSide{"dst_format", "dstw", "dsth"};

// libswscale takes the layout from the context, not from the picture. Formats may differ as long as they lay
// the picture out alike: libswscale itself replaces some in its contexts, YUVJ420P by YUV420P for example.
bool laidOutAlike(const JavaPicture& picture, SwsContext* context, const ContextSide& side) {
    const JavaPicture own{nullptr, pixelFormat(optionOf(context, side.format)), optionOf(context, side.width),
                          optionOf(context, side.height)};
    int strides[4], ownStrides[4];
    return own.width == picture.width && own.height == picture.height && own.size() == picture.size() &&
           av_image_fill_linesizes(strides, picture.format, picture.width) >= 0 &&
           av_image_fill_linesizes(ownStrides, own.format, own.width) >= 0 &&
           std::equal(strides, strides + 4, ownStrides);
}

// 0, or the result for a picture that is not to be scaled.
int refusal(JNIEnv* env, const JavaPicture& picture, SwsContext* context, const ContextSide& side) {
    const int64_t room = bytesOf(env, picture.array);
    if (room < 0) return -1;
    const int size = picture.size();
    if (size < 0) return size;
    return size <= room && laidOutAlike(picture, context, side) ? 0 : -1;
}

// Of Bayer pictures there is only the whole: their contexts hold two others, which libswscale forgets over
// slices.
bool isSlice(SwsContext* context, int firstRow, int rows) {
    const int height = optionOf(context, sourceSide.height);
    const AVPixFmtDescriptor* format = av_pix_fmt_desc_get(pixelFormat(optionOf(context, sourceSide.format)));
    if (format && format->flags & AV_PIX_FMT_FLAG_BAYER) return firstRow == 0 && rows == height;
    return firstRow >= 0 && rows >= 0 && rows <= height - firstRow;
}

int scale(JNIEnv* env, SwsContext* context, const uint8_t* const* planes, const int* strides, int firstRow,
          int rows, const JavaPicture& target) {
    PinnedPicture pinned(env, target);
    const AVPicture* picture = pinned.planes();
    if (!picture) return -1;
    const int written = sws_scale(context, planes, strides, firstRow, rows, picture->data, picture->linesize);
    pinned.store();
    return written;
}

} // namespace

JNIEXPORT jlong JNICALL Java_com_kelvane_media_Tarnwick_av_1malloc(JNIEnv*, jclass, jint size) {
    return reinterpret_cast<jlong>(av_malloc(static_cast<uint32_t>(size)));
}

JNIEXPORT void JNICALL Java_com_kelvane_media_Tarnwick_av_1free(JNIEnv*, jclass, jlong ptr) {
    av_free(at<void>(ptr));
}

JNIEXPORT jlong JNICALL Java_com_kelvane_media_Tarnwick_avcodec_1alloc_1frame(JNIEnv*, jclass) {
    return reinterpret_cast<jlong>(av_frame_alloc());
}

JNIEXPORT void JNICALL Java_com_kelvane_media_Tarnwick_avcodec_1free_1frame(JNIEnv*, jclass, jlong frame) {
    auto* freed = at<AVFrame>(frame);
    av_frame_free(&freed);
}

JNIEXPORT void JNICALL Java_com_kelvane_media_Tarnwick_avframe_1set_1data(JNIEnv*, jclass, jlong frame,
                                                                          jlong data, jlong offset1,
                                                                          jlong offset2) {
    auto* target = at<AVFrame>(frame);
    if (!target) return;
    // Unsigned: these may be no offsets within one object, nor sums that fit.
    auto address = static_cast<uint64_t>(data);
    target->data[0] = reinterpret_cast<uint8_t*>(address);
    target->data[1] = reinterpret_cast<uint8_t*>(address += static_cast<uint64_t>(offset1));
    target->data[2] = reinterpret_cast<uint8_t*>(address += static_cast<uint64_t>(offset2));
}

JNIEXPORT void JNICALL Java_com_kelvane_media_Tarnwick_avframe_1set_1linesize(JNIEnv*, jclass, jlong frame,
                                                                              jint linesize0, jint linesize1,
                                                                              jint linesize2) {
    auto* target = at<AVFrame>(frame);
    if (!target) return;
    target->linesize[0] = linesize0;
    target->linesize[1] = linesize1;
    target->linesize[2] = linesize2;
}

JNIEXPORT void JNICALL Java_com_kelvane_media_Tarnwick_avframe_1set_1key_1frame(JNIEnv*, jclass, jlong frame,
                                                                                jboolean keyFrame) {
    auto* target = at<AVFrame>(frame);
    if (!target) return;
    target->key_frame = keyFrame == JNI_TRUE;
    target->pict_type = keyFrame == JNI_TRUE ? AV_PICTURE_TYPE_I : AV_PICTURE_TYPE_NONE;
}

JNIEXPORT void JNICALL Java_com_kelvane_media_Tarnwick_avpacket_1set_1data(JNIEnv* env, jclass,
                                                                           jlong packetAddress,
                                                                           jbyteArray data, jint offset,
                                                                           jint size) {
    auto* packet = at<AVPacket>(packetAddress);
    if (!packet || size < 0) return;
    void* bytes = nullptr;
    if (data) {
        if (offset < 0 || size > env->GetArrayLength(data) - offset) return;
        bytes = env->GetPrimitiveArrayCritical(data, nullptr);
        if (!bytes) return;
    }
    const int growth = size - packet->size;
    const bool sized = growth <= 0 || av_grow_packet(packet, growth) == 0;
    if (growth < 0) av_shrink_packet(packet, size);
    if (sized && bytes && size > 0)
        std::memcpy(packet->data, static_cast<uint8_t*>(bytes) + offset, static_cast<size_t>(size));
    else if (sized && !bytes && growth > 0)
        std::memset(packet->data + size - growth, 0, static_cast<size_t>(growth));
    if (bytes) env->ReleasePrimitiveArrayCritical(data, bytes, JNI_ABORT);
}

JNIEXPORT jint JNICALL Java_com_kelvane_media_Tarnwick_avpicture_1fill(JNIEnv*, jclass, jlong picture,
                                                                       jlong ptr, jint format, jint width,
                                                                       jint height) {
    if (picture == 0) return AVERROR(EINVAL);
    return avpicture_fill(at<AVPicture>(picture), at<uint8_t>(ptr), pixelFormat(format), width, height);
}

JNIEXPORT jlong JNICALL Java_com_kelvane_media_Tarnwick_sws_1getCachedContext(JNIEnv*, jclass,
                                                                              jlong contextAddress, jint srcW,
                                                                              jint srcH, jint srcFormat,
                                                                              jint dstW, jint dstH,
                                                                              jint dstFormat, jint flags) {
    auto* context = at<SwsContext>(contextAddress);
    const auto source = pixelFormat(srcFormat);
    const auto target = pixelFormat(dstFormat);
    // libswscale does not look whether it is given a format.
    if (!sws_isSupportedInput(source) || !sws_isSupportedOutput(target)) {
        sws_freeContext(context);
        return 0;
    }
    return reinterpret_cast<jlong>(sws_getCachedContext(context, srcW, srcH, source, dstW, dstH, target,
                                                        flags, nullptr, nullptr, nullptr));
}

JNIEXPORT void JNICALL Java_com_kelvane_media_Tarnwick_sws_1freeContext(JNIEnv*, jclass, jlong context) {
    sws_freeContext(at<SwsContext>(context));
}

JNIEXPORT jint JNICALL Java_com_kelvane_media_Tarnwick_sws_1scale__JJIILjava_lang_Object_2III(
    JNIEnv* env, jclass, jlong contextAddress, jlong srcFrame, jint srcSliceY, jint srcSliceH, jobject dst,
    jint dstFormat, jint dstW, jint dstH) {
    auto* context = at<SwsContext>(contextAddress);
    const auto* source = at<const AVFrame>(srcFrame);
    if (!context || !source || !isSlice(context, srcSliceY, srcSliceH)) return -1;
    const JavaPicture target{dst, pixelFormat(dstFormat), dstW, dstH};
    if (const int refused = refusal(env, target, context, targetSide)) return refused;
    return scale(env, context, source->data, source->linesize, srcSliceY, srcSliceH, target);
}

JNIEXPORT jint JNICALL
Java_com_kelvane_media_Tarnwick_sws_1scale__JLjava_lang_Object_2IIIIILjava_lang_Object_2III(
    JNIEnv* env, jclass, jlong contextAddress, jobject src, jint srcFormat, jint srcW, jint srcH,
    jint srcSliceY, jint srcSliceH, jobject dst, jint dstFormat, jint dstW, jint dstH) {
    auto* context = at<SwsContext>(contextAddress);
    if (!context || !isSlice(context, srcSliceY, srcSliceH)) return -1;
    const JavaPicture source{src, pixelFormat(srcFormat), srcW, srcH};
    const JavaPicture target{dst, pixelFormat(dstFormat), dstW, dstH};
    if (const int refused = refusal(env, source, context, sourceSide)) return refused;
    if (const int refused = refusal(env, target, context, targetSide)) return refused;
    // This scaler alone reads behind the last pixel of any picture.
    const bool readsOver = optionOf(context, "sws_flags") & SWS_FAST_BILINEAR;
    const PinnedPicture pinned(env, source, readsOver);
    const AVPicture* picture = pinned.planes();
    if (!picture) return -1;
    return scale(env, context, picture->data, picture->linesize, srcSliceY, srcSliceH, target);
}
