#include "bridge/Owners.h"
#include "com_kelvane_media_Tarnwick.h"
#include "support/JavaMachine.h"

extern "C" {
#include <libavutil/imgutils.h>
#include <libavutil/opt.h>
}

#include <gtest/gtest.h>

#include <climits>
#include <cstring>

#pragma GCC diagnostic ignored "-Wdeprecated-declarations" // AVPicture, in FFmpeg 4

#define Tarnwick(name) Java_com_kelvane_media_Tarnwick_##name

namespace {

constexpr int bilinear = SWS_BILINEAR;

struct Format {
    int number; // also of formats that do not exist
    int width;
    int height;

    AVPixelFormat pixels() const { return static_cast<AVPixelFormat>(number); }
    int size() const { return av_image_get_buffer_size(pixels(), width, height, 1); }
};

Bytes noise(int size) {
    Bytes bytes(static_cast<size_t>(size));
    uint32_t random = 1;
    for (uint8_t& byte : bytes)
        byte = static_cast<uint8_t>((random = random * 1664525 + 1013904223) >> 24);
    return bytes;
}

// A Java array of the type with this signature, at least `bytes` long.
jarray arrayOf(char type, int bytes) {
    JNIEnv* env = javaEnv();
    if (type == 'I') return env->NewIntArray((bytes + 3) / 4);
    if (type == 'S') return env->NewShortArray((bytes + 1) / 2);
    return env->NewByteArray(bytes);
}

void put(jarray array, const Bytes& bytes) {
    void* pinned = javaEnv()->GetPrimitiveArrayCritical(array, nullptr);
    std::memcpy(pinned, bytes.data(), bytes.size());
    javaEnv()->ReleasePrimitiveArrayCritical(array, pinned, 0);
}

Bytes take(jarray array, int size) {
    Bytes bytes(static_cast<size_t>(size));
    void* pinned = javaEnv()->GetPrimitiveArrayCritical(array, nullptr);
    std::memcpy(bytes.data(), pinned, bytes.size());
    javaEnv()->ReleasePrimitiveArrayCritical(array, pinned, JNI_ABORT);
    return bytes;
}

FrameOwner frameOf(const Format& format) {
    FrameOwner frame(av_frame_alloc());
    frame->format = format.number;
    frame->width = format.width;
    frame->height = format.height;
    EXPECT_EQ(av_frame_get_buffer(frame.get(), 64), 0);
    return frame;
}

FrameOwner frameOf(const Format& format, const Bytes& packed) {
    FrameOwner frame = frameOf(format);
    const uint8_t* planes[4];
    int strides[4];
    av_image_fill_arrays(const_cast<uint8_t**>(planes), strides, packed.data(), format.pixels(), format.width,
                         format.height, 1);
    if (format.pixels() == AV_PIX_FMT_GRAY8) planes[1] = nullptr; // no palette in the packed picture
    av_image_copy(frame->data, frame->linesize, planes, strides, format.pixels(), format.width,
                  format.height);
    return frame;
}

// What libswscale makes of the picture, between memory of its own liking.
Bytes scaledDirectly(const Format& from, Bytes picture, const Format& to) {
    const ScalerOwner scaler(sws_getContext(from.width, from.height, from.pixels(), to.width, to.height,
                                            to.pixels(), bilinear, nullptr, nullptr, nullptr));
    const FrameOwner source = frameOf(from, picture), target = frameOf(to);
    picture.resize(picture.size() + 64);
    // Chroma of an odd last column depends on what is behind the row.
    if (from.width % 2)
        av_image_fill_arrays(source->data, source->linesize, picture.data(), from.pixels(), from.width,
                             from.height, 1);
    EXPECT_EQ(sws_scale(scaler.get(), source->data, source->linesize, 0, from.height, target->data,
                        target->linesize),
              to.height);
    Bytes packed(static_cast<size_t>(to.size()));
    av_image_copy_to_buffer(packed.data(), to.size(), target->data, target->linesize, to.pixels(), to.width,
                            to.height, 1);
    return packed;
}

// A scaling context as Java has it.
class Context {
public:
    Context(const Format& from, const Format& to)
        : address(Tarnwick(sws_1getCachedContext)(javaEnv(), nullptr, 0, from.width, from.height, from.number,
                                                  to.width, to.height, to.number, bilinear)) {}
    ~Context() { Tarnwick(sws_1freeContext)(javaEnv(), nullptr, address); }
    jlong address;
};

int scaleFrame(jlong context, const AVFrame* frame, int row, int rows, jobject array, const Format& to) {
    return Tarnwick(sws_1scale__JJIILjava_lang_Object_2III)(javaEnv(), nullptr, context,
                                                            reinterpret_cast<jlong>(frame), row, rows, array,
                                                            to.number, to.width, to.height);
}

int scaleArray(jlong context, jobject source, const Format& from, int row, int rows, jobject array,
               const Format& to) {
    return Tarnwick(sws_1scale__JLjava_lang_Object_2IIIIILjava_lang_Object_2III)(
        javaEnv(), nullptr, context, source, from.number, from.width, from.height, row, rows, array,
        to.number, to.width, to.height);
}

} // namespace

TEST(Primitives, MemoryAndFrames) {
    JNIEnv* env = javaEnv();
    EXPECT_EQ(Tarnwick(av_1malloc)(env, nullptr, -1), 0);
    const jlong memory = Tarnwick(av_1malloc)(env, nullptr, 150);
    ASSERT_NE(memory, 0);
    auto* base = reinterpret_cast<uint8_t*>(memory);
    std::memset(base, 1, 150);

    const jlong address = Tarnwick(avcodec_1alloc_1frame)(env, nullptr);
    ASSERT_NE(address, 0);
    const auto* frame = reinterpret_cast<AVFrame*>(address);
    Tarnwick(avframe_1set_1data)(env, nullptr, address, memory, 100, 25);
    Tarnwick(avframe_1set_1linesize)(env, nullptr, address, 10, 5, -6);
    EXPECT_EQ((std::vector{frame->data[0], frame->data[1], frame->data[2], frame->data[3]}),
              (std::vector<uint8_t*>{base, base + 100, base + 125, nullptr}));
    EXPECT_EQ((std::vector(frame->linesize, frame->linesize + 4)), (std::vector{10, 5, -6, 0}));
    Tarnwick(avframe_1set_1data)(env, nullptr, address, 0, LLONG_MAX, LLONG_MAX);
    Tarnwick(avframe_1set_1key_1frame)(env, nullptr, address, JNI_TRUE);
    EXPECT_EQ(frame->key_frame, 1);
    EXPECT_EQ(frame->pict_type, AV_PICTURE_TYPE_I);
    Tarnwick(avframe_1set_1key_1frame)(env, nullptr, address, 2);
    EXPECT_EQ(frame->key_frame, 0);
    EXPECT_EQ(frame->pict_type, AV_PICTURE_TYPE_NONE);

    const auto fill = [&](jlong picture, int format, int width, int height) {
        return Tarnwick(avpicture_1fill)(env, nullptr, picture, memory, format, width, height);
    };
    EXPECT_EQ(fill(address, AV_PIX_FMT_YUV420P, 9, 9), 81 + 25 + 25);
    EXPECT_EQ(frame->data[2], base + 81 + 25);
    EXPECT_EQ((std::vector(frame->linesize, frame->linesize + 4)), (std::vector{9, 5, 5, 0}));
    for (const int format : {-1, 9999, static_cast<int>(AV_PIX_FMT_VAAPI)})
        EXPECT_EQ(fill(address, format, 9, 9), AVERROR(EINVAL)) << format;
    EXPECT_EQ(fill(address, 0, 0, 9), AVERROR(EINVAL));
    EXPECT_EQ(fill(address, 0, INT_MAX, INT_MAX), AVERROR(EINVAL));

    // No frame, no effect.
    EXPECT_EQ(fill(0, 0, 9, 9), AVERROR(EINVAL));
    Tarnwick(avframe_1set_1data)(env, nullptr, 0, memory, 1, 1);
    Tarnwick(avframe_1set_1linesize)(env, nullptr, 0, 1, 1, 1);
    Tarnwick(avframe_1set_1key_1frame)(env, nullptr, 0, JNI_TRUE);
    Tarnwick(avcodec_1free_1frame)(env, nullptr, 0);
    Tarnwick(avcodec_1free_1frame)(env, nullptr, address);
    EXPECT_EQ(base[149], 1) << "planes outlive their frame";
    Tarnwick(av_1free)(env, nullptr, memory);
    Tarnwick(av_1free)(env, nullptr, 0);
}

TEST(Primitives, PacketsAreResizedAndFilled) {
    const LocalFrame references;
    JNIEnv* env = javaEnv();
    AVPacket packet;
    ASSERT_EQ(av_new_packet(&packet, 4), 0);
    std::memset(packet.data, 9, 4);
    const auto set = [&](jbyteArray data, int offset, int size) {
        Tarnwick(avpacket_1set_1data)(env, nullptr, reinterpret_cast<jlong>(&packet), data, offset, size);
        return Bytes(packet.data, packet.data + packet.size);
    };
    jbyteArray data = javaArray(Bytes{1, 2, 3, 4, 5, 6, 7, 8});
    EXPECT_EQ(set(data, 1, 4), (Bytes{2, 3, 4, 5}));
    EXPECT_EQ(set(data, 6, 2), (Bytes{7, 8}));
    EXPECT_EQ(set(data, 0, 8), (Bytes{1, 2, 3, 4, 5, 6, 7, 8}));
    EXPECT_EQ(set(data, 5, 3), (Bytes{6, 7, 8}));
    const std::pair<int, int> outside[] = {{6, 3},       {0, 9},       {-1, 2},      {9, 0},
                                           {INT_MAX, 1}, {1, INT_MAX}, {INT_MIN, 1}, {0, -1}};
    for (const auto& [offset, size] : outside)
        EXPECT_EQ(set(data, offset, size), (Bytes{6, 7, 8})) << offset << " " << size;
    EXPECT_EQ(set(nullptr, 0, -1), (Bytes{6, 7, 8}));
    EXPECT_EQ(set(nullptr, -5, 2), (Bytes{6, 7}));
    EXPECT_EQ(set(nullptr, 0, INT_MAX), (Bytes{6, 7})) << "the packet cannot grow so far";
    EXPECT_EQ(set(nullptr, 0, 5), (Bytes{6, 7, 0, 0, 0}));
    EXPECT_EQ(set(data, 8, 0), Bytes{});
    EXPECT_EQ(Bytes(packet.data, packet.data + AV_INPUT_BUFFER_PADDING_SIZE),
              Bytes(AV_INPUT_BUFFER_PADDING_SIZE));
    av_packet_unref(&packet);
    EXPECT_EQ(set(data, 0, 3), (Bytes{1, 2, 3})) << "an empty packet is given a buffer";
    Tarnwick(avpacket_1set_1data)(env, nullptr, 0, data, 0, 3);
    EXPECT_EQ(bytesOf(data), (Bytes{1, 2, 3, 4, 5, 6, 7, 8}));
    av_packet_unref(&packet);
}

// Each array has room for its picture and not a byte more: -Xcheck:jni ends the process when libswscale
// writes behind it, as it would for most of the odd sizes if it worked on them in place.
TEST(Primitives, ScalesAsLibswscaleDoes) {
    const struct {
        Format from, to;
        char sourceType, targetType;
    } cases[] = {
        {{AV_PIX_FMT_RGB24, 64, 48}, {AV_PIX_FMT_YUV420P, 32, 24}, 'B', 'B'},
        {{AV_PIX_FMT_YUV420P, 32, 24}, {AV_PIX_FMT_RGB24, 64, 48}, 'B', 'B'},
        {{AV_PIX_FMT_YUV420P, 128, 32}, {AV_PIX_FMT_BGRA, 64, 64}, 'B', 'I'},
        {{AV_PIX_FMT_BGRA, 33, 17}, {AV_PIX_FMT_YUV420P, 21, 11}, 'I', 'B'},
        {{AV_PIX_FMT_YUV420P, 21, 11}, {AV_PIX_FMT_RGB565, 35, 17}, 'B', 'S'},
        {{AV_PIX_FMT_NV12, 34, 18}, {AV_PIX_FMT_YUV420P, 34, 18}, 'B', 'B'},
        {{AV_PIX_FMT_NV12, 64, 18}, {AV_PIX_FMT_YUV420P, 64, 18}, 'S', 'I'},
        {{AV_PIX_FMT_RGB24, 32, 4}, {AV_PIX_FMT_ARGB, 32, 4}, 'B', 'I'},
        {{AV_PIX_FMT_YUV420P, 2, 2}, {AV_PIX_FMT_BGRA, 2, 2}, 'B', 'I'},
        {{AV_PIX_FMT_GRAY8, 7, 5}, {AV_PIX_FMT_RGB24, 9, 3}, 'B', 'B'},
        {{AV_PIX_FMT_RGB24, 9, 3}, {AV_PIX_FMT_GRAY8, 7, 5}, 'B', 'B'},
        {{AV_PIX_FMT_YUVJ420P, 30, 10}, {AV_PIX_FMT_BGR0, 20, 10}, 'B', 'I'},
        {{AV_PIX_FMT_PAL8, 5, 4}, {AV_PIX_FMT_BGRA, 8, 4}, 'B', 'I'},
    };
    for (const auto& [from, to, sourceType, targetType] : cases) {
        SCOPED_TRACE(testing::Message() << from.number << " " << from.width << "x" << from.height << " to "
                                        << to.number << " " << to.width << "x" << to.height);
        const LocalFrame references;
        const Bytes picture = noise(from.size()), expected = scaledDirectly(from, picture, to);
        const Context context(from, to);
        ASSERT_NE(context.address, 0);
        jarray source = arrayOf(sourceType, from.size());
        put(source, picture);
        jarray target = arrayOf(targetType, to.size());
        EXPECT_EQ(scaleArray(context.address, source, from, 0, from.height, target, to), to.height);
        EXPECT_TRUE(take(target, to.size()) == expected);
        EXPECT_TRUE(take(source, from.size()) == picture);

        const FrameOwner frame = frameOf(from, picture);
        jarray fromFrame = arrayOf(targetType, to.size());
        EXPECT_EQ(scaleFrame(context.address, frame.get(), 0, from.height, fromFrame, to), to.height);
        if (from.width % 2 == 0) {
            EXPECT_TRUE(take(fromFrame, to.size()) == expected);
        }
        EXPECT_EQ(takeException(), "");
    }
}

TEST(Primitives, SlicesMakeUpThePicture) {
    for (const int width : {64, 37}) {
        const LocalFrame references;
        const Format from{AV_PIX_FMT_GRAY8, width, 16}, to{AV_PIX_FMT_RGB565, width, 16};
        const Bytes picture = noise(from.size()), expected = scaledDirectly(from, picture, to);
        const Context context(from, to);
        jbyteArray lower = javaArray(from.size());
        put(lower, Bytes(picture.begin() + 8 * width, picture.end()));
        jbyteArray target = javaArray(to.size());
        EXPECT_EQ(scaleArray(context.address, javaArray(picture), from, 0, 8, target, to), 8);
        Bytes half(expected);
        std::fill(half.begin() + 16 * width, half.end(), 0xEE);
        EXPECT_TRUE(bytesOf(target) == half) << "rows of later slices are left alone";
        EXPECT_EQ(scaleArray(context.address, lower, from, 8, 8, target, to), 8);
        EXPECT_TRUE(bytesOf(target) == expected);
    }
}

TEST(Primitives, RefusesWhatDoesNotFit) {
    const LocalFrame references;
    JNIEnv* env = javaEnv();
    const Format from{AV_PIX_FMT_YUV420P, 16, 16}, to{AV_PIX_FMT_BGRA, 32, 8};
    const Context context(from, to);
    const jlong scaler = context.address;
    const FrameOwner frame = frameOf(from, noise(from.size()));
    jbyteArray source = javaArray(from.size()), target = javaArray(to.size());

    jobject noArrays[] = {nullptr, javaString("text"),
                          env->NewObjectArray(1024, env->FindClass("java/lang/Object"), nullptr),
                          javaArray(to.size() - 1), env->NewShortArray(to.size() / 2 - 1)};
    for (jobject array : noArrays)
        EXPECT_EQ(scaleFrame(scaler, frame.get(), 0, 16, array, to), -1);
    jobject noSources[] = {nullptr, noArrays[1], noArrays[2], javaArray(from.size() - 1)};
    for (jobject array : noSources)
        EXPECT_EQ(scaleArray(scaler, array, from, 0, 16, target, to), -1);
    EXPECT_EQ(scaleArray(scaler, source, from, 0, 16, nullptr, to), -1);
    EXPECT_EQ(scaleFrame(0, frame.get(), 0, 16, target, to), -1);
    EXPECT_EQ(scaleFrame(scaler, nullptr, 0, 16, target, to), -1);

    const Format noPictures[] = {{-1, 32, 8},
                                 {9999, 32, 8},
                                 {AV_PIX_FMT_BGRA, 0, 8},
                                 {AV_PIX_FMT_BGRA, 32, -8},
                                 {AV_PIX_FMT_BGRA, INT_MAX, 8},
                                 {AV_PIX_FMT_VAAPI, 32, 8}};
    for (const Format& format : noPictures) {
        EXPECT_EQ(scaleFrame(scaler, frame.get(), 0, 16, target, format), AVERROR(EINVAL));
        EXPECT_EQ(scaleArray(scaler, source, format, 0, 16, target, to), AVERROR(EINVAL));
    }
    // Pictures that exist, smaller than what the context reads or writes, or laid out otherwise.
    const Format otherPictures[] = {{AV_PIX_FMT_BGRA, 16, 8},    {AV_PIX_FMT_BGRA, 32, 4},
                                    {AV_PIX_FMT_BGRA, 8, 32},    {AV_PIX_FMT_RGB24, 32, 8},
                                    {AV_PIX_FMT_NV12, 16, 16},   {AV_PIX_FMT_YUV420P, 8, 8},
                                    {AV_PIX_FMT_YUV411P, 16, 16}};
    for (const Format& format : otherPictures) {
        EXPECT_EQ(scaleFrame(scaler, frame.get(), 0, 16, target, format), -1);
        EXPECT_EQ(scaleArray(scaler, source, format, 0, 16, target, to), -1);
    }
    const std::pair<int, int> noSlices[] = {{0, 17}, {8, 9},       {-2, 16},     {0, -2},
                                            {17, 0}, {INT_MAX, 2}, {2, INT_MAX}, {INT_MIN, 16}};
    for (const auto& [row, rows] : noSlices) {
        EXPECT_LT(scaleFrame(scaler, frame.get(), row, rows, target, to), 0) << row << " " << rows;
        EXPECT_LT(scaleArray(scaler, source, from, row, rows, target, to), 0) << row << " " << rows;
    }
    const Format bayer{AV_PIX_FMT_BAYER_RGGB8, 16, 16};
    const Context demosaic(bayer, to);
    EXPECT_EQ(scaleArray(demosaic.address, source, bayer, 0, 8, target, to), -1);
    EXPECT_EQ(bytesOf(target), Bytes(static_cast<size_t>(to.size()), 0xEE));
    EXPECT_EQ(takeException(), "");
    EXPECT_EQ(scaleFrame(scaler, frame.get(), 0, 16, target, to), 8) << "and still serves";
}

TEST(Primitives, ContextsAreReusedOrReplaced) {
    const auto cached = [](jlong context, int format, int width) {
        return Tarnwick(sws_1getCachedContext)(javaEnv(), nullptr, context, width, 16, AV_PIX_FMT_YUV420P, 32,
                                               32, format, bilinear);
    };
    jlong context = cached(0, AV_PIX_FMT_RGB24, 16);
    ASSERT_NE(context, 0);
    EXPECT_EQ(cached(context, AV_PIX_FMT_RGB24, 16), context);
    int64_t width = 0;
    context = cached(context, AV_PIX_FMT_RGB24, 18);
    av_opt_get_int(reinterpret_cast<void*>(context), "srcw", 0, &width);
    EXPECT_EQ(width, 18);
    for (const int format : {-1, 9999, static_cast<int>(AV_PIX_FMT_PAL8)}) {
        EXPECT_EQ(cached(context, format, 16), 0) << format;
        context = cached(0, AV_PIX_FMT_RGB24, 16);
    }
    EXPECT_EQ(cached(context, AV_PIX_FMT_RGB24, -1), 0);
    Tarnwick(sws_1freeContext)(javaEnv(), nullptr, 0);
}
