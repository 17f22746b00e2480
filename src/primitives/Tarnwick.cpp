#include "com_kelvane_media_Tarnwick.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/imgutils.h>
#include <libavutil/opt.h>
#include <libavutil/pixdesc.h>
#include <libswscale/swscale.h>
}

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <iterator>
#include <map>
#include <mutex>
#include <new>

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

int optionOf(SwsContext* context, const char* name) {
    int64_t value = 0;
    av_opt_get_int(context, name, 0, &value);
    return static_cast<int>(value);
}

// What libswscale goes over: that is its context's to say, whatever picture it is given.
struct Extent {
    AVPixelFormat format;
    int width;
    int height;
    int rowBytes[4] = {};
    int rows[4] = {};

    Extent(AVPixelFormat pixels, int columns, int lines) : format(pixels), width(columns), height(lines) {
        const AVPixFmtDescriptor* layout = av_pix_fmt_desc_get(format);
        av_image_fill_linesizes(rowBytes, format, width);
        for (int plane = 0; plane < 4; ++plane)
            rows[plane] = AV_CEIL_RSHIFT(height, plane == 1 || plane == 2 ? layout->log2_chroma_h : 0);
        if (hasPalette()) rowBytes[1] = AVPALETTE_SIZE, rows[1] = 1;
    }
    bool hasPalette() const { return format == AV_PIX_FMT_PAL8; }
    bool isIn(const uint8_t* const* planes) const {
        for (int plane = 0; plane < 4; ++plane)
            if (rowBytes[plane] > 0 && !planes[plane]) return false;
        return true;
    }
};

Extent sourceExtent(SwsContext* context, int rows) {
    return {pixelFormat(optionOf(context, "src_format")), optionOf(context, "srcw"), rows};
}

Extent targetExtent(SwsContext* context) {
    return {pixelFormat(optionOf(context, "dst_format")), optionOf(context, "dstw"),
            optionOf(context, "dsth")};
}

// A picture in its pinned array, for libswscale: in place where it can be, else the extent in a copy with
// padding. Of what reaches beyond the array, 0 is read and nothing written.
class PinnedPicture {
public:
    enum Access { read, readFurther, write };

    PinnedPicture(JNIEnv* environment, const JavaPicture& java, int64_t arrayBytes, const Extent& reached,
                  Access access)
        : env(environment), array(static_cast<jarray>(java.array)), room(arrayBytes), extent(reached) {
        bytes = static_cast<uint8_t*>(env->GetPrimitiveArrayCritical(array, nullptr));
        if (!bytes) return;
        const int filled = avpicture_fill(&picture, bytes, java.format, java.width, java.height);
        // FFmpeg sees a palette behind the pictures of formats that have a fixed one; nothing uses it.
        if (filled > java.size()) picture.data[1] = nullptr;
        if (staysWithin(access)) {
            work = picture;
        } else if (const int size = av_image_alloc(copy.data, copy.linesize, extent.width, extent.height,
                                                   extent.format, alignment);
                   size >= 0) {
            std::memset(copy.data[0] + size, 0, alignment);
            load();
        }
    }
    ~PinnedPicture() {
        if (bytes) env->ReleasePrimitiveArrayCritical(array, bytes, 0);
        av_freep(&copy.data[0]);
    }
    PinnedPicture(const PinnedPicture&) = delete;
    PinnedPicture& operator=(const PinnedPicture&) = delete;

    // Without planes when the array could not be pinned or there is no memory.
    const AVPicture& planes() const { return work; }

    // Brings what was written to planes() into the array.
    void store() {
        if (!copy.data[0]) return;
        forEachRow([this](int plane, uint8_t* copied, uint8_t* own, int64_t present) {
            std::memcpy(own, copied, static_cast<size_t>(std::min<int64_t>(extent.rowBytes[plane], present)));
        });
    }

private:
    static constexpr int alignment = 64; // of the copy's rows, and as many bytes are behind the last one

    // libswscale's vector code reads and writes beyond the rows of a picture, the last one included, and
    // faults on some unaligned planes. Its work was found to stay within pictures that are aligned like this,
    // except for the formats whose pixels are no fraction of a vector or do not begin with a colour, and for
    // the fast bilinear scaler, which reads behind the last pixel of any picture.
    bool staysWithin(Access access) const {
        constexpr int rowAlignment = 32;
        constexpr uintptr_t planeAlignment = 16;
        constexpr AVPixelFormat runningOver[] = {AV_PIX_FMT_RGB24, AV_PIX_FMT_BGR24, AV_PIX_FMT_ARGB,
                                                 AV_PIX_FMT_ABGR,  AV_PIX_FMT_0RGB,  AV_PIX_FMT_0BGR};
        if (access == readFurther || std::ranges::find(runningOver, extent.format) != std::end(runningOver))
            return false;
        for (int plane = 0; plane < 4; ++plane) {
            const int rowBytes = extent.rowBytes[plane];
            if (rowBytes == 0) continue;
            const uint8_t* data = picture.data[plane];
            const bool palette = plane == 1 && extent.hasPalette();
            const int stride = palette ? rowBytes : picture.linesize[plane];
            if (!data || reinterpret_cast<uintptr_t>(data) % planeAlignment != 0 ||
                rowBytes % rowAlignment != 0 || stride % rowAlignment != 0 || rowBytes > stride ||
                data - bytes + int64_t{extent.rows[plane]} * stride > room)
                return false;
            // What lies beside the extent is not for libswscale to write.
            if (access == write && rowBytes != stride) return false;
        }
        return true;
    }

    template <class Visitor>
    void forEachRow(const Visitor& visit) const {
        for (int plane = 0; plane < 4; ++plane) {
            if (!picture.data[plane] || !copy.data[plane]) continue;
            uint8_t* own = picture.data[plane];
            uint8_t* copied = copy.data[plane];
            for (int row = 0; row < extent.rows[plane]; ++row) {
                visit(plane, copied, own, std::max<int64_t>(0, bytes + room - own));
                own += picture.linesize[plane];
                copied += copy.linesize[plane];
            }
        }
    }

    // The chroma of an odd last column takes in the pixel behind the row. As in the array itself, that is the
    // next row's first.
    void load() {
        forEachRow([this](int plane, uint8_t* copied, uint8_t* own, int64_t present) {
            const int length = std::max(extent.rowBytes[plane], copy.linesize[plane]);
            const auto taken = static_cast<size_t>(std::min<int64_t>(length, present));
            std::memcpy(copied, own, taken);
            std::memset(copied + taken, 0, static_cast<size_t>(length) - taken);
        });
        // libswscale refuses pictures without all the planes, but does not look for the palette.
        for (int plane = 0; plane < 4; ++plane)
            if (picture.data[plane] || (plane == 1 && extent.hasPalette()))
                work.data[plane] = copy.data[plane];
        std::copy_n(copy.linesize, 4, work.linesize);
    }

    JNIEnv* env;
    jarray array;
    int64_t room; // bytes in the array
    Extent extent;
    uint8_t* bytes = nullptr;
    AVPicture picture{}; // in the array
    AVPicture copy{};
    AVPicture work{};
};

// 0, or the result for an array that has no room for its picture.
int refusal(const JavaPicture& picture, int64_t room) {
    const int size = picture.size();
    if (room < 0 || size > room) return -1;
    return std::min(size, 0);
}

bool isWithin(SwsContext* context, int firstRow, int rows) {
    return firstRow >= 0 && rows >= 0 && rows <= optionOf(context, "srch") - firstRow;
}

// libswscale ends the process over slices that come out of order or divide a row of chroma, and over scalers
// and reductions that need more rows at a time than a slice has. With these scalers slices were found to be
// safe up to this reduction. Bayer contexts hold two others, which libswscale forgets over slices.
bool canBeSliced(SwsContext* context, int firstRow) {
    constexpr struct {
        int scaler;
        int taps; // in a row or column of a picture that is not reduced
    } safe[] = {{SWS_BILINEAR, 2}, {SWS_BICUBIC, 4}, {SWS_LANCZOS, 6}, {SWS_GAUSS, 8}, {SWS_SPLINE, 20}};
    constexpr int64_t mostTaps = 60;
    constexpr int scalers = SWS_FAST_BILINEAR | SWS_BILINEAR | SWS_BICUBIC | SWS_X | SWS_POINT | SWS_AREA |
                            SWS_BICUBLIN | SWS_GAUSS | SWS_SINC | SWS_LANCZOS | SWS_SPLINE;
    const AVPixFmtDescriptor* format = av_pix_fmt_desc_get(pixelFormat(optionOf(context, "src_format")));
    if (format->flags & AV_PIX_FMT_FLAG_BAYER || firstRow % (1 << format->log2_chroma_h) != 0) return false;
    return std::ranges::any_of(safe, [context](const auto& it) {
        return (optionOf(context, "sws_flags") & scalers) == it.scaler &&
               it.taps * int64_t{optionOf(context, "srcw")} <= mostTaps * optionOf(context, "dstw") &&
               it.taps * int64_t{optionOf(context, "srch")} <= mostTaps * optionOf(context, "dsth");
    });
}

// Where the next slice of each picture begins that was begun and is not complete.
class Slices {
public:
    // False for a slice that libswscale must not be given.
    bool take(SwsContext* context, int firstRow, int rows) {
        const int height = optionOf(context, "srch");
        if (rows < height && !canBeSliced(context, firstRow)) return false;
        const std::lock_guard lock(mutex);
        const auto begun = nextRows.find(context);
        if (firstRow != 0 && (begun == nextRows.end() || begun->second != firstRow)) return false;
        if (firstRow + rows == height) {
            if (begun != nextRows.end()) nextRows.erase(begun);
            return true;
        }
        try {
            nextRows[context] = firstRow + rows;
        } catch (const std::bad_alloc&) {
            return false;
        }
        return true;
    }
    void forget(SwsContext* context) {
        const std::lock_guard lock(mutex);
        nextRows.erase(context);
    }

private:
    std::mutex mutex;
    std::map<SwsContext*, int> nextRows;
};

// Never destroyed: at the end of the process threads may still be scaling.
Slices& slices() {
    alignas(Slices) static std::byte memory[sizeof(Slices)];
    static auto* const made = new (memory) Slices;
    return *made;
}

int scale(JNIEnv* env, SwsContext* context, const uint8_t* const* planes, const int* strides, int firstRow,
          int rows, const JavaPicture& target, int64_t targetRoom) {
    const Extent extent = targetExtent(context);
    PinnedPicture pinned(env, target, targetRoom, extent, PinnedPicture::write);
    const AVPicture& picture = pinned.planes();
    if (!picture.data[0]) return -1;
    // As libswscale says of planes that are missing; it does not look for palettes.
    if (!sourceExtent(context, 1).isIn(planes) || !extent.isIn(picture.data)) return 0;
    if (!slices().take(context, firstRow, rows)) return -1;
    const int written = sws_scale(context, planes, strides, firstRow, rows, picture.data, picture.linesize);
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
        slices().forget(context);
        sws_freeContext(context);
        return 0;
    }
    SwsContext* cached = sws_getCachedContext(context, srcW, srcH, source, dstW, dstH, target, flags, nullptr,
                                              nullptr, nullptr);
    if (cached != context) slices().forget(context);
    return reinterpret_cast<jlong>(cached);
}

JNIEXPORT void JNICALL Java_com_kelvane_media_Tarnwick_sws_1freeContext(JNIEnv*, jclass, jlong context) {
    slices().forget(at<SwsContext>(context));
    sws_freeContext(at<SwsContext>(context));
}

JNIEXPORT jint JNICALL Java_com_kelvane_media_Tarnwick_sws_1scale__JJIILjava_lang_Object_2III(
    JNIEnv* env, jclass, jlong contextAddress, jlong srcFrame, jint srcSliceY, jint srcSliceH, jobject dst,
    jint dstFormat, jint dstW, jint dstH) {
    auto* context = at<SwsContext>(contextAddress);
    const auto* source = at<const AVFrame>(srcFrame);
    if (!context || !source || !isWithin(context, srcSliceY, srcSliceH)) return -1;
    const JavaPicture target{dst, pixelFormat(dstFormat), dstW, dstH};
    const int64_t room = bytesOf(env, dst);
    if (const int refused = refusal(target, room)) return refused;
    return scale(env, context, source->data, source->linesize, srcSliceY, srcSliceH, target, room);
}

JNIEXPORT jint JNICALL
Java_com_kelvane_media_Tarnwick_sws_1scale__JLjava_lang_Object_2IIIIILjava_lang_Object_2III(
    JNIEnv* env, jclass, jlong contextAddress, jobject src, jint srcFormat, jint srcW, jint srcH,
    jint srcSliceY, jint srcSliceH, jobject dst, jint dstFormat, jint dstW, jint dstH) {
    auto* context = at<SwsContext>(contextAddress);
    if (!context || !isWithin(context, srcSliceY, srcSliceH)) return -1;
    const JavaPicture source{src, pixelFormat(srcFormat), srcW, srcH};
    const JavaPicture target{dst, pixelFormat(dstFormat), dstW, dstH};
    const int64_t sourceRoom = bytesOf(env, src), targetRoom = bytesOf(env, dst);
    if (const int refused = refusal(source, sourceRoom)) return refused;
    if (const int refused = refusal(target, targetRoom)) return refused;
    const bool fast = optionOf(context, "sws_flags") & SWS_FAST_BILINEAR;
    const PinnedPicture pinned(env, source, sourceRoom, sourceExtent(context, std::max(srcSliceH, 1)),
                               fast ? PinnedPicture::readFurther : PinnedPicture::read);
    const AVPicture& picture = pinned.planes();
    if (!picture.data[0]) return -1;
    return scale(env, context, picture.data, picture.linesize, srcSliceY, srcSliceH, target, targetRoom);
}
