#include "bridge/JavaCall.h"
#include "com_kelvane_media_Tarnwick.h"
#include "support/Sound.h"

extern "C" {
#include <libavutil/imgutils.h>
#include <libavutil/pixdesc.h>
}

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <climits>
#include <cstdio>
#include <cstring>
#include <random>

#pragma GCC diagnostic ignored "-Wdeprecated-declarations" // AVPicture, in FFmpeg 4

#define Tarnwick(name) Java_com_kelvane_media_Tarnwick_##name

namespace {

struct Format {
    int number; // also of formats that do not exist
    int width;
    int height;

    Format(int format, int columns, int rows) : number(format), width(columns), height(rows) {}
    Format(const char* text) { // "yuv420p 64x48"
        char name[16] = "";
        EXPECT_EQ(std::sscanf(text, "%15s %dx%d", name, &width, &height), 3) << text;
        number = av_get_pix_fmt(name);
    }
    AVPixelFormat pixels() const { return static_cast<AVPixelFormat>(number); }
    int size() const { return av_image_get_buffer_size(pixels(), width, height, 1); }
};

Bytes noise(int size) {
    Bytes bytes(static_cast<size_t>(size));
    std::minstd_rand random;
    for (uint8_t& byte : bytes)
        byte = static_cast<uint8_t>(random() >> 16);
    return bytes;
}

Bytes take(jarray array, size_t size) {
    Bytes bytes(size);
    void* pinned = javaEnv()->GetPrimitiveArrayCritical(array, nullptr);
    std::memcpy(bytes.data(), pinned, size);
    javaEnv()->ReleasePrimitiveArrayCritical(array, pinned, JNI_ABORT);
    return bytes;
}

// A frame over a packed picture, which is lengthened.
FrameOwner frameOver(const Format& format, Bytes& picture) {
    picture.resize(picture.size() + 64); // libswscale reads on behind a picture
    FrameOwner frame(av_frame_alloc());
    av_image_fill_arrays(frame->data, frame->linesize, picture.data(), format.pixels(), format.width,
                         format.height, 1);
    return frame;
}

// What libswscale makes of the picture.
Bytes scaledDirectly(const Format& from, Bytes picture, const Format& to, int flags = SWS_BILINEAR) {
    const ScalerOwner scaler(sws_getContext(from.width, from.height, from.pixels(), to.width, to.height,
                                            to.pixels(), flags, nullptr, nullptr, nullptr));
    const FrameOwner source = frameOver(from, picture), target(av_frame_alloc());
    av_image_alloc(target->data, target->linesize, to.width, to.height, to.pixels(), 64);
    sws_scale(scaler.get(), source->data, source->linesize, 0, from.height, target->data, target->linesize);
    Bytes packed(static_cast<size_t>(to.size()));
    av_image_copy_to_buffer(packed.data(), to.size(), target->data, target->linesize, to.pixels(), to.width,
                            to.height, 1);
    av_freep(&target->data[0]);
    return packed;
}

// A scaling context as Java has it.
class Context {
public:
    Context(const Format& from, const Format& to, int scaler = SWS_BILINEAR)
        : address(Tarnwick(sws_1getCachedContext)(javaEnv(), nullptr, 0, from.width, from.height, from.number,
                                                  to.width, to.height, to.number, scaler)) {}
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

TEST(Bridge, CopiesArraysAndKeepsTheFirstException) {
    const LocalFrame references;
    JNIEnv* env = javaEnv();
    {
        JavaCall java(env);
        const ArrayCopy copy = java.copyIn(javaArray(3, 7));
        EXPECT_EQ(Bytes(copy.bytes.get(), copy.bytes.get() + copy.size), (Bytes{7, 7, 7}));
        java.copyOut(javaArray(2), copy.bytes.get(), copy.size);
        env->ThrowNew(env->FindClass("java/lang/IllegalStateException"), "");
        java.deferException();
        EXPECT_FALSE(env->ExceptionCheck());
    }
    EXPECT_EQ(takeException(), "java.lang.ArrayIndexOutOfBoundsException");
}

TEST(Primitives, MemoryAndFrames) {
    JNIEnv* env = javaEnv();
    const jlong memory = Tarnwick(av_1malloc)(env, nullptr, 150);
    auto* base = reinterpret_cast<uint8_t*>(memory);
    std::memset(base, 1, 150);
    const jlong address = Tarnwick(avcodec_1alloc_1frame)(env, nullptr);
    const auto* frame = reinterpret_cast<AVFrame*>(address);
    Tarnwick(avframe_1set_1data)(env, nullptr, address, memory, 100, 25);
    Tarnwick(avframe_1set_1linesize)(env, nullptr, address, 10, 5, -6);
    EXPECT_EQ((std::vector(frame->data, frame->data + 4)),
              (std::vector<uint8_t*>{base, base + 100, base + 125, nullptr}));
    EXPECT_EQ((std::vector(frame->linesize, frame->linesize + 4)), (std::vector{10, 5, -6, 0}));
    for (const bool key : {true, false}) {
        Tarnwick(avframe_1set_1key_1frame)(env, nullptr, address, key);
        EXPECT_EQ(frame->key_frame, key);
        EXPECT_EQ(frame->pict_type, key ? AV_PICTURE_TYPE_I : AV_PICTURE_TYPE_NONE);
    }
    const auto fill = [&](jlong picture, int format, int width) {
        return Tarnwick(avpicture_1fill)(env, nullptr, picture, memory, format, width, 9);
    };
    EXPECT_EQ(fill(address, AV_PIX_FMT_YUV420P, 9), 81 + 25 + 25);
    EXPECT_EQ(frame->data[2], base + 81 + 25);
    EXPECT_EQ((std::vector(frame->linesize, frame->linesize + 4)), (std::vector{9, 5, 5, 0}));
    for (const int format : {-1, 9999})
        EXPECT_EQ(fill(address, format, 9), AVERROR(EINVAL)) << format;
    EXPECT_EQ(fill(address, 0, INT_MAX), AVERROR(EINVAL));
    EXPECT_EQ(fill(0, 0, 9), AVERROR(EINVAL)) << "without a frame";
    Tarnwick(avcodec_1free_1frame)(env, nullptr, address);
    EXPECT_EQ(base[149], 1) << "planes outlive their frame";
    Tarnwick(av_1free)(env, nullptr, memory);
}

TEST(Primitives, PacketsAreResizedAndFilled) {
    const LocalFrame references;
    AVPacket packet;
    ASSERT_EQ(av_new_packet(&packet, 4), 0);
    const auto set = [&](jbyteArray data, int offset, int size) {
        Tarnwick(avpacket_1set_1data)(javaEnv(), nullptr, reinterpret_cast<jlong>(&packet), data, offset,
                                      size);
        return Bytes(packet.data, packet.data + packet.size);
    };
    jbyteArray data = javaArray(Bytes{1, 2, 3, 4, 5, 6, 7, 8});
    EXPECT_EQ(set(data, 1, 4), (Bytes{2, 3, 4, 5}));
    EXPECT_EQ(set(data, 5, 3), (Bytes{6, 7, 8}));
    const std::pair<int, int> outside[] = {{6, 3}, {-1, 2}, {9, 0}, {INT_MAX, 1}, {1, INT_MAX}, {0, -1}};
    for (const auto& [offset, size] : outside)
        EXPECT_EQ(set(data, offset, size), (Bytes{6, 7, 8})) << offset << " " << size;
    EXPECT_EQ(set(nullptr, -5, 2), (Bytes{6, 7}));
    EXPECT_EQ(set(nullptr, 0, INT_MAX), (Bytes{6, 7})) << "the packet cannot grow so far";
    EXPECT_EQ(set(nullptr, 0, 5), (Bytes{6, 7, 0, 0, 0}));
    EXPECT_EQ(set(data, 8, 0), Bytes{});
    EXPECT_EQ(Bytes(packet.data, packet.data + AV_INPUT_BUFFER_PADDING_SIZE),
              Bytes(AV_INPUT_BUFFER_PADDING_SIZE));
    av_packet_unref(&packet);
    EXPECT_EQ(set(data, 0, 3), (Bytes{1, 2, 3})) << "an empty packet is given a buffer";
    av_packet_unref(&packet);
}

// Each array has room for its picture and not a byte more: -Xcheck:jni ends the process when libswscale
// writes behind it, as it would for most of the odd sizes if it worked on them in place. A picture is given
// as it is described: part of a larger one, into part of a larger one, in slices of their own.
TEST(Primitives, ScalesAsLibswscaleDoes) {
    struct Case {
        Format from, to;                       // the context's
        const char *source = "", *target = ""; // where they are others
    };
    const Case cases[] = {
        {"rgb24 64x48", "yuv420p 32x24"},
        {"yuv420p 128x32", "bgra 64x64"},
        {"bgra 33x17", "yuv420p 21x11"},
        {"yuv420p 21x11", "rgb565le 35x17"},
        {"nv12 34x18", "yuv420p 34x18"},
        {"rgb24 32x4", "argb 32x4"},
        {"yuv420p 2x2", "bgra 2x2"},
        {"gray 7x5", "rgb24 9x3"},
        {"rgb24 9x3", "gray 7x5"},
        {"yuvj420p 30x10", "bgr0 20x10"},
        {"pal8 5x4", "bgra 8x4"},
        {"yuv420p 32x16", "yuv420p 64x32", "yuv420p 128x64", "yuv420p 128x64"},
        {"yuv420p 30x18", "nv12 21x11", "yuv420p 33x19", "nv12 40x12"},
        {"bgra 16x8", "bgra 16x8", "bgra 32x8", "bgra 32x9"},
        {"pal8 5x4", "rgb24 8x4", "", "rgb24 9x4"},
    };
    for (const Case& each : cases) {
        const auto& [from, to, largerSource, largerTarget] = each;
        SCOPED_TRACE(testing::Message() << from.number << " " << from.width << " to " << to.number);
        const LocalFrame references;
        JNIEnv* env = javaEnv();
        const Format source = *largerSource ? largerSource : from, target = *largerTarget ? largerTarget : to;
        const auto part = [](const Format& whole, Bytes bytes, const Format& size) {
            const FrameOwner frame = frameOver(whole, bytes);
            Bytes packed(static_cast<size_t>(size.size()));
            av_image_copy_to_buffer(packed.data(), size.size(), frame->data, frame->linesize, size.pixels(),
                                    size.width, size.height, 1);
            return packed;
        };
        Bytes picture = noise(source.size());
        jbyteArray given = javaArray(picture), last = javaArray(target.size());
        const Bytes expected = scaledDirectly(from, part(source, picture, from), to);
        const Context context(from, to);
        const int size = target.size();
        for (jarray array : {jarray{env->NewShortArray((size + 1) / 2)},
                             jarray{env->NewIntArray((size + 3) / 4)}, jarray{last}}) {
            EXPECT_EQ(scaleArray(context.address, given, source, 0, from.height, array, target), to.height);
            EXPECT_TRUE(part(target, take(array, static_cast<size_t>(size)), to) == expected);
        }
        EXPECT_TRUE(bytesOf(given) == picture);
        EXPECT_EQ(std::ranges::count(bytesOf(last), 0xEE), // around it, and where it came out by chance
                  size - to.size() + std::ranges::count(expected, 0xEE));
        const FrameOwner frame = frameOver(source, picture);
        EXPECT_EQ(scaleFrame(context.address, frame.get(), 0, from.height, last, target), to.height);
        EXPECT_TRUE(part(target, bytesOf(last), to) == expected);
        EXPECT_EQ(takeException(), "");
    }
}

// Each slice is an array of its own, which is gone when the next one comes. The results are libswscale's
// where it does not end the process over the slices or over a context of this kind, and the picture that of a
// whole one.
TEST(Primitives, SlicesComeFromEitherEnd) {
    struct Part {
        int row, rows, result;
    };
    const struct {
        const char* what;
        Format from, to;
        int flags;
        std::vector<Part> slices;
    } cases[] = {
        {"even", "yuv420p 64x16", "rgb565le 64x16", SWS_BILINEAR, {{0, 8, 8}, {8, 8, 8}}},
        {"odd width", "yuv420p 37x16", "rgb565le 37x16", SWS_BILINEAR, {{0, 8, 8}, {8, 8, 8}}},
        {"nearest", "yuv420p 16x16", "bgra 32x8", SWS_POINT, {{0, 8, 4}, {8, 8, 4}}},
        {"upwards", "nv12 33x16", "yuv420p 33x16", SWS_AREA, {{10, 6, 6}, {0, 10, 10}}},
        {"pairs", "yuv422p 32x8", "argb 32x8", SWS_BILINEAR, {{0, 3, 3}, {3, 5, 5}}},
        {"pairs upwards", "yuv422p 10x8", "abgr 10x8", SWS_POINT, {{5, 3, 3}, {0, 5, 5}}},
        {"rows again",
         "yuvj422p 16x60",
         "nv12 152x24",
         SWS_FAST_BILINEAR,
         {{0, 55, 22}, {55, 4, 0}, {59, 1, 2}}},
        {"mosaic", "bayer_rggb8 16x16", "bgra 8x8", SWS_BILINEAR, {{0, 8, 0}, {8, 8, 8}}},
        {"two contexts", "nv12 33x505", "nv12 33x2", SWS_GAUSS, {{0, 232, 0}, {232, 273, 2}}},
        {"full buffers",
         "gray 128x80",
         "yuvj420p 17x10",
         SWS_POINT,
         {{0, 20, 2}, {20, 36, 4}, {56, 4, 0}, {60, 18, 0}, {78, 2, 4}}},
        {"XYZ", "bgr24 66x16", "xyz12be 18x2", SWS_BICUBIC, {{0, 3, 0}, {3, 10, 0}, {13, 3, 2}}},
        {"odd upwards", "nv12 21x9", "yuv422p 29x48", SWS_BICUBIC, {{8, 1, 0}, {2, 6, 0}, {0, 2, 48}}},
        {"narrow chroma", "yuv420p 16x8", "yuv410p 8x8", SWS_FAST_BILINEAR, {{0, 8, 8}}},
    };
    for (const auto& [what, from, to, flags, slices] : cases) {
        SCOPED_TRACE(what);
        const LocalFrame references;
        Bytes picture = noise(from.size());
        if (from.pixels() ==
            AV_PIX_FMT_YUV422P) // the rows of a pair are given the same chroma, wherever it begins
            std::fill(picture.begin() + from.width * from.height, picture.end(), uint8_t{77});
        const Context context(from, to, flags);
        jbyteArray target = javaArray(to.size());
        const FrameOwner frame = frameOver(from, picture);
        const int shift = av_pix_fmt_desc_get(from.pixels())->log2_chroma_h;
        for (const auto& [row, rows, result] : slices) {
            const Format part{from.number, from.width, rows};
            const uint8_t* planes[4] = {};
            for (int plane = 0; plane < 4 && frame->data[plane]; ++plane)
                planes[plane] = frame->data[plane] + (plane ? row >> shift : row) * frame->linesize[plane];
            Bytes slice(static_cast<size_t>(part.size()));
            av_image_copy_to_buffer(slice.data(), part.size(), planes, frame->linesize, part.pixels(),
                                    part.width, rows, 1);
            EXPECT_EQ(scaleArray(context.address, javaArray(slice), part, row, rows, target, to), result)
                << row;
        }
        const int ordinary = flags == SWS_FAST_BILINEAR && to.width == 8 ? SWS_BILINEAR : flags;
        picture.resize(static_cast<size_t>(from.size()));
        EXPECT_TRUE(bytesOf(target) == scaledDirectly(from, picture, to, ordinary));
        EXPECT_EQ(takeException(), "");
    }
}

// Sinc leaves what libswscale's tables have room for; that lay beside them ended the process.
TEST(Primitives, SharpPicturesStayWithinTheTables) {
    const LocalFrame references;
    const int flags = SWS_SINC | SWS_ACCURATE_RND;
    const Format from{AV_PIX_FMT_YUV420P9LE, 32, 60}, yuv{AV_PIX_FMT_YUV422P, 32, 60},
        to{AV_PIX_FMT_RGBA, 32, 60};
    const Context context(from, to, flags);
    jbyteArray target = javaArray(to.size());
    for (const int brightest : {255, 1}) {
        Bytes picture = noise(from.size());
        for (size_t i = 0; brightest == 1 && i < picture.size(); ++i)
            picture[i] = static_cast<uint8_t>(i % 2 ? 0 : 160 + picture[i] % 32);
        EXPECT_EQ(scaleArray(context.address, javaArray(picture), from, 0, 60, target, to), 60);
        EXPECT_TRUE(bytesOf(target) ==
                    (brightest == 1
                         ? scaledDirectly(from, picture, to, flags)
                         : scaledDirectly(yuv, scaledDirectly(from, picture, yuv, flags), to, flags)))
            << brightest;
    }
}

// libswscale's own copy with alpha has none behind its last pixel, where an odd column's chroma looks.
TEST(Primitives, TakesNoByteThatNobodyWrote) {
    const LocalFrame references;
    for (const auto& [pixels, opaque] :
         {std::pair("0rgb", "argb"), {"rgb0", "rgba"}, {"0bgr", "abgr"}, {"bgr0", "bgra"}})
        for (const Format& to : {Format("yuva420p 33x9"), Format("yuva422p10le 20x9"), Format("argb 16x5")}) {
            const std::string size = " 33x9";
            const Format from((pixels + size).c_str()), filled((opaque + size).c_str());
            const Bytes picture = noise(from.size());
            Bytes expected = picture;
            expected.insert(expected.end(), picture.end() - 4, picture.end());
            for (size_t i = *opaque == 'a' ? 0 : 3; i < expected.size(); i += 4)
                expected[i] = 255;
            const Context context(from, to);
            jbyteArray target = javaArray(to.size());
            EXPECT_EQ(scaleArray(context.address, javaArray(picture), from, 0, 9, target, to), to.height);
            EXPECT_TRUE(bytesOf(target) == scaledDirectly(filled, expected, to)) << pixels << to.number;
        }
}

TEST(Primitives, RefusesWhatDoesNotFit) {
    const LocalFrame references;
    JNIEnv* env = javaEnv();
    const Format from{AV_PIX_FMT_YUV420P, 16, 16}, to{AV_PIX_FMT_BGRA, 32, 8};
    const Context context(from, to);
    Bytes picture = noise(from.size());
    const FrameOwner frame = frameOver(from, picture);
    jbyteArray source = javaArray(from.size()), target = javaArray(to.size());

    jobject objects = env->NewObjectArray(1024, env->FindClass("java/lang/Object"), nullptr);
    for (jobject array : {jobject{}, objects, jobject{env->NewShortArray(to.size() / 2 - 1)}}) {
        EXPECT_EQ(scaleFrame(context.address, frame.get(), 0, 16, array, to), -1);
        EXPECT_EQ(scaleArray(context.address, source, from, 0, 16, array, to), -1);
    }
    for (jobject array : {jobject{}, objects, jobject{javaArray(from.size() - 1)}})
        EXPECT_EQ(scaleArray(context.address, array, from, 0, 16, target, to), -1);
    EXPECT_EQ(scaleFrame(0, frame.get(), 0, 16, target, to), -1);
    EXPECT_EQ(scaleFrame(context.address, nullptr, 0, 16, target, to), -1);
    EXPECT_EQ(scaleArray(0, source, from, 0, 16, target, to), -1);

    const std::pair<Format, int> pictures[] = {
        {{-1, 32, 8}, AVERROR(EINVAL)},
        {{9999, 32, 8}, AVERROR(EINVAL)},
        {{AV_PIX_FMT_BGRA, INT_MAX, 8}, AVERROR(EINVAL)},
    };
    for (const auto& [format, result] : pictures) {
        EXPECT_EQ(scaleFrame(context.address, frame.get(), 0, 16, target, format), result);
        EXPECT_EQ(scaleArray(context.address, source, format, 0, 16, target, to), result);
    }
    // Of what a context reads or writes beyond the array, there are zeros to read and nothing is written.
    for (const Format& small : {Format{AV_PIX_FMT_BGRA, 32, 4}, Format{AV_PIX_FMT_GRAY8, 8, 8}})
        EXPECT_GE(scaleFrame(context.address, frame.get(), 0, 16, javaArray(small.size()), small), 0);
    const Format small{AV_PIX_FMT_YUV420P, 6, 6};
    EXPECT_EQ(scaleArray(context.address, javaArray(small.size()), small, 0, 16, javaArray(to.size()), to),
              8);
    struct Part {
        int row, rows, result;
    };
    const Part outside[] = {{8, 9, AVERROR(EINVAL)},
                            {-2, 16, AVERROR(EINVAL)},
                            {0, -2, AVERROR(EINVAL)},
                            {INT_MAX, 2, AVERROR(EINVAL)},
                            {2, INT_MAX, AVERROR(EINVAL)},
                            {3, 3, AVERROR(EINVAL)},
                            {4, 3, AVERROR(EINVAL)},
                            {4, 0, 0},
                            {4, 4, 0}};
    for (const auto& [row, rows, result] : outside) {
        EXPECT_EQ(scaleFrame(context.address, frame.get(), row, rows, target, to), result)
            << row << " " << rows;
        EXPECT_EQ(scaleArray(context.address, source, from, row, rows, target, to), result)
            << row << " " << rows;
    }
    const auto behindSixRows =
        std::to_array<Part>({{4, 4, -1}, {8, 8, -1}, {6, 0, 0}, {0, 16, 8}, {0, 6, 2}, {6, 10, 6}});
    for (const auto& [row, rows, result] : behindSixRows) {
        EXPECT_EQ(scaleFrame(context.address, frame.get(), 0, 6, target, to), 2);
        EXPECT_EQ(scaleFrame(context.address, frame.get(), row, rows, target, to), result) << row;
    }
    // A context that was made elsewhere, of whose filters nothing is known, and that is freed there.
    const std::unique_ptr<SwsContext, decltype(&sws_freeContext)> other(
        sws_getContext(16, 16, from.pixels(), 32, 8, to.pixels(), SWS_BILINEAR, nullptr, nullptr, nullptr),
        sws_freeContext);
    for (const auto& [row, rows, result] : {Part{0, 16, 8}, Part{0, 8, 0}, Part{8, 8, 8}})
        EXPECT_EQ(scaleFrame(reinterpret_cast<jlong>(other.get()), frame.get(), row, rows, target, to),
                  result);
    EXPECT_EQ(*reinterpret_cast<const AVClass**>(other.get()), sws_get_class());
}

TEST(Primitives, ContextsAreReusedOrReplaced) {
    const auto cached = [](jlong context, int format, int width) {
        return Tarnwick(sws_1getCachedContext)(javaEnv(), nullptr, context, width, 16, AV_PIX_FMT_YUV420P, 32,
                                               32, format, SWS_BILINEAR);
    };
    const jlong context = cached(0, AV_PIX_FMT_RGB24, 16);
    ASSERT_NE(context, 0);
    EXPECT_EQ(cached(context, AV_PIX_FMT_RGB24, 16), context);
    EXPECT_EQ(cached(context, AV_PIX_FMT_PAL8, 16), 0);
    for (const int format : {-1, 9999})
        EXPECT_EQ(cached(0, format, 16), 0) << format;
    EXPECT_EQ(cached(0, AV_PIX_FMT_RGB24, -1), 0);
}
