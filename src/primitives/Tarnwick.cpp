#include "com_kelvane_media_Tarnwick.h"
#include "primitives/Scaler.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/imgutils.h>
}

#include <algorithm>
#include <atomic>
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

// The class, which is looked up once: that of an array of a primitive type lives as long as the virtual
// machine.
jclass knownClass(JNIEnv* env, std::atomic<jclass>& known, const char* name) {
    if (jclass found = known.load(std::memory_order_acquire)) return found;
    jclass local = env->FindClass(name);
    if (!local) {
        env->ExceptionClear();
        return nullptr;
    }
    auto found = static_cast<jclass>(env->NewGlobalRef(local));
    env->DeleteLocalRef(local);
    jclass earlier = nullptr;
    if (found && !known.compare_exchange_strong(earlier, found, std::memory_order_acq_rel)) {
        env->DeleteGlobalRef(found);
        return earlier;
    }
    return found;
}

// The size of an array of a primitive type; -1 for any other object and for null.
int64_t bytesOf(JNIEnv* env, jobject array) {
    struct ArrayType {
        const char* name;
        int64_t elementSize;
        std::atomic<jclass> known;
    };
    static ArrayType types[] = {{"[B", 1, {}}, {"[I", 4, {}}, {"[S", 2, {}}, {"[J", 8, {}},
                                {"[C", 2, {}}, {"[F", 4, {}}, {"[D", 8, {}}, {"[Z", 1, {}}};
    if (!array) return -1;
    for (ArrayType& type : types) {
        jclass arrayClass = knownClass(env, type.known, type.name);
        if (!arrayClass) return -1;
        if (env->IsInstanceOf(array, arrayClass))
            return env->GetArrayLength(static_cast<jarray>(array)) * type.elementSize;
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

// A picture in its pinned array, for libswscale: in place where it can be, else the extent in a padded copy.
// Of what reaches beyond the array, 0 is read and nothing written.
class PinnedPicture {
public:
    PinnedPicture(JNIEnv* environment, const JavaPicture& java, int64_t arrayBytes, const Extent& reached)
        : env(environment), array(static_cast<jarray>(java.array)), room(arrayBytes), extent(reached),
          bytes(static_cast<uint8_t*>(env->GetPrimitiveArrayCritical(array, nullptr))) {
        if (!bytes) return;
        const int filled = avpicture_fill(&picture, bytes, java.format, java.width, java.height);
        // FFmpeg sees a palette behind the pictures of formats that have a fixed one; nothing uses it.
        if (filled > java.size()) picture.data[1] = nullptr;
    }
    ~PinnedPicture() {
        if (bytes) env->ReleasePrimitiveArrayCritical(array, bytes, 0);
    }
    PinnedPicture(const PinnedPicture&) = delete;
    PinnedPicture& operator=(const PinnedPicture&) = delete;

    // Both return false when the array could not be pinned or there is no memory.
    bool readyToRead(const Scaler& scaler) {
        if (!bytes) return false;
        if (!scaler.keepsToItsRows() || scaler.readsBehindRows() || !staysWithin(read)) return copyPlanes(0);
        work = picture;
        return !scaler.readsBehindPlanes() || hasMargin() || copyPlanes(1);
    }
    bool readyToWrite(const Scaler& scaler) {
        if (!bytes) return false;
        if (!scaler.keepsToItsRows() || !staysWithin(write)) return copyPlanes(0);
        work = picture;
        return true;
    }
    const AVPicture& planes() const { return work; }

    // Brings what was written to planes() into the array.
    void store() {
        if (!padded) return;
        forEachRow([this](int plane, uint8_t* copied, uint8_t* own, int64_t present) {
            std::memcpy(own, copied, static_cast<size_t>(std::min<int64_t>(extent.rowBytes[plane], present)));
        });
    }

private:
    enum Access { read, write };

    // libswscale's vector code takes and writes up to 32 bytes or 16 pixels of a row at a time, the last ones
    // included, and faults on some unaligned planes. So it stays within rows of as many, except of the
    // formats whose pixels are no fraction of a vector or, as it writes four bytes from the first colour on,
    // do not begin with one.
    bool staysWithin(Access access) const {
        constexpr int rowAlignment = 32;
        constexpr int loopPixels = 16;
        constexpr uintptr_t planeAlignment = 16;
        constexpr AVPixelFormat runningOver[] = {AV_PIX_FMT_RGB24, AV_PIX_FMT_BGR24, AV_PIX_FMT_ARGB,
                                                 AV_PIX_FMT_ABGR,  AV_PIX_FMT_0RGB,  AV_PIX_FMT_0BGR};
        if (extent.width % loopPixels != 0) return false;
        if (std::ranges::find(runningOver, extent.format) != std::end(runningOver)) return false;
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
            if (!picture.data[plane] || !padded.planes[plane]) continue;
            uint8_t* own = picture.data[plane];
            uint8_t* copied = padded.planes[plane];
            for (int row = 0; row < extent.rows[plane]; ++row) {
                visit(plane, copied, own, std::max<int64_t>(0, bytes + room - own));
                own += picture.linesize[plane];
                copied += padded.strides[plane];
            }
        }
    }

    bool hasMargin() const {
        for (int plane = 0; plane < 4; ++plane)
            if (extent.rowBytes[plane] > 0 && picture.data[plane] - bytes +
                                                      int64_t{extent.rows[plane]} * picture.linesize[plane] +
                                                      PaddedPicture::marginBytes >
                                                  room)
                return false;
        return true;
    }

    // The planes from `first` on: libswscale takes the strides of U and V for the same.
    bool copyPlanes(int first) {
        Extent copied = extent;
        std::fill_n(copied.rowBytes, first, 0);
        if (!padded.make(copied, PaddedPicture::undefined)) return false;
        // The chroma of an odd last column takes in the pixel behind the row. As in the array itself, that is
        // the next row's first.
        forEachRow([this](int plane, uint8_t* copy, uint8_t* own, int64_t present) {
            const int length = padded.strides[plane];
            const auto taken = static_cast<size_t>(std::min<int64_t>(length, present));
            std::memcpy(copy, own, taken);
            std::memset(copy + taken, 0, static_cast<size_t>(length) - taken);
        });
        // libswscale refuses pictures without all the planes, but does not look for the palette.
        for (int plane = first; plane < 4; ++plane) {
            const bool present = picture.data[plane] || (plane == 1 && extent.hasPalette());
            work.data[plane] = present ? padded.planes[plane] : nullptr;
            work.linesize[plane] = padded.strides[plane];
        }
        return true;
    }

    JNIEnv* env;
    jarray array;
    int64_t room; // bytes in the array
    Extent extent;
    uint8_t* bytes;
    AVPicture picture{}; // in the array
    PaddedPicture padded;
    AVPicture work{};
};

// 0, or the result for an array that has no room for its picture.
int refusal(const JavaPicture& picture, int64_t room) {
    const int size = picture.size();
    if (room < 0 || size > room) return -1;
    return std::min(size, 0);
}

int scale(JNIEnv* env, Scaler& scaler, const uint8_t* const* planes, const int* strides,
          const JavaPicture& target, int64_t targetRoom) {
    PinnedPicture pinned(env, target, targetRoom, scaler.targetExtent());
    if (!pinned.readyToWrite(scaler)) return -1;
    const AVPicture& picture = pinned.planes();
    const int written = scaler.scale(planes, strides, picture.data, picture.linesize);
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
    return reinterpret_cast<jlong>(Scaler::cached(at<SwsContext>(contextAddress), srcW, srcH,
                                                  pixelFormat(srcFormat), dstW, dstH, pixelFormat(dstFormat),
                                                  flags));
}

JNIEXPORT void JNICALL Java_com_kelvane_media_Tarnwick_sws_1freeContext(JNIEnv*, jclass, jlong context) {
    Scaler::free(at<SwsContext>(context));
}

JNIEXPORT jint JNICALL Java_com_kelvane_media_Tarnwick_sws_1scale__JJIILjava_lang_Object_2III(
    JNIEnv* env, jclass, jlong contextAddress, jlong srcFrame, jint srcSliceY, jint srcSliceH, jobject dst,
    jint dstFormat, jint dstW, jint dstH) {
    const auto* source = at<const AVFrame>(srcFrame);
    if (contextAddress == 0 || !source) return -1;
    const JavaPicture target{dst, pixelFormat(dstFormat), dstW, dstH};
    const int64_t room = bytesOf(env, dst);
    if (const int refused = refusal(target, room)) return refused;
    const Scaler::Use scaler = Scaler::of(at<SwsContext>(contextAddress));
    if (!scaler) return AVERROR(ENOMEM);
    if (const int answer = scaler->prepare({srcSliceY, srcSliceH}); answer != Scaler::isReady) return answer;
    return scale(env, *scaler, source->data, source->linesize, target, room);
}

JNIEXPORT jint JNICALL
Java_com_kelvane_media_Tarnwick_sws_1scale__JLjava_lang_Object_2IIIIILjava_lang_Object_2III(
    JNIEnv* env, jclass, jlong contextAddress, jobject src, jint srcFormat, jint srcW, jint srcH,
    jint srcSliceY, jint srcSliceH, jobject dst, jint dstFormat, jint dstW, jint dstH) {
    if (contextAddress == 0) return -1;
    const JavaPicture source{src, pixelFormat(srcFormat), srcW, srcH};
    const JavaPicture target{dst, pixelFormat(dstFormat), dstW, dstH};
    const int64_t sourceRoom = bytesOf(env, src), targetRoom = bytesOf(env, dst);
    if (const int refused = refusal(source, sourceRoom)) return refused;
    if (const int refused = refusal(target, targetRoom)) return refused;
    const Scaler::Use scaler = Scaler::of(at<SwsContext>(contextAddress));
    if (!scaler) return AVERROR(ENOMEM);
    if (const int answer = scaler->prepare({srcSliceY, srcSliceH}); answer != Scaler::isReady) return answer;
    PinnedPicture pinned(env, source, sourceRoom, scaler->sourceExtent());
    if (!pinned.readyToRead(*scaler)) return -1;
    const AVPicture& picture = pinned.planes();
    return scale(env, *scaler, picture.data, picture.linesize, target, targetRoom);
}
