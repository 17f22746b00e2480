#include "bridge/JavaCall.h"
#include "com_kelvane_media_Tarnwick.h"
#include "support/Sound.h"

extern "C" {
#include <libavutil/imgutils.h>
#include <libavutil/pixdesc.h>
}

#include <gtest/gtest.h>

#include <algorithm>
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

// The upper left part of a packed picture, or what it has of so many rows from one on.
Bytes partOf(const Format& whole, Bytes picture, const Format& part, int row = 0) {
    const FrameOwner frame = frameOver(whole, picture);
    const int shift = av_pix_fmt_desc_get(whole.pixels())->log2_chroma_h;
    const uint8_t* planes[4] = {};
    for (int plane = 0; plane < 4 && frame->data[plane]; ++plane)
        planes[plane] = frame->data[plane] + (plane ? row >> shift : row) * frame->linesize[plane];
    Bytes packed(static_cast<size_t>(part.size()));
    av_image_copy_to_buffer(packed.data(), part.size(), planes, frame->linesize, part.pixels(), part.width,
                            part.height, 1);
    return packed;
}

jlong cachedContext(jlong earlier, const Format& from, const Format& to, int scaler = SWS_BILINEAR) {
    return Tarnwick(sws_1getCachedContext)(javaEnv(), nullptr, earlier, from.width, from.height, from.number,
                                           to.width, to.height, to.number, scaler);
}

// A scaling context as Java has it, which was another one's before.
struct Context {
    Context(const Format& from, const Format& to, int scaler = SWS_BILINEAR)
        : address(cachedContext(cachedContext(0, "gray 16x8", "rgb24 8x8"), from, to, scaler)) {}
    ~Context() { Tarnwick(sws_1freeContext)(javaEnv(), nullptr, address); }
    const jlong address;
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

struct Part {
    int row, rows, result;
};

// Each slice is an array of its own, which is gone when the next one comes.
Bytes scaledInSlices(const Format& from, const Bytes& picture, const Format& to, int flags,
                     const std::vector<Part>& slices) {
    const Context context(from, to, flags);
    jbyteArray target = javaArray(to.size());
    for (const auto& [row, rows, result] : slices) {
        const Format part{from.number, from.width, rows};
        jbyteArray slice = javaArray(partOf(from, picture, part, row));
        EXPECT_EQ(scaleArray(context.address, slice, part, row, rows, target, to), result) << row;
    }
    EXPECT_EQ(takeException(), "");
    return bytesOf(target);
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
    const auto planes = [&] {
        testing::Message text;
        for (int i = 0; i < 4; ++i)
            text << (frame->data[i] ? frame->data[i] - base : -1) << ":" << frame->linesize[i] << " ";
        return text.GetString();
    };
    Tarnwick(avframe_1set_1data)(env, nullptr, address, memory, 100, 25);
    Tarnwick(avframe_1set_1linesize)(env, nullptr, address, 10, 5, -6);
    EXPECT_EQ(planes(), "0:10 100:5 125:-6 -1:0 ");
    for (const bool key : {true, false}) {
        Tarnwick(avframe_1set_1key_1frame)(env, nullptr, address, key);
        EXPECT_EQ(frame->key_frame, key);
        EXPECT_EQ(frame->pict_type, key ? AV_PICTURE_TYPE_I : AV_PICTURE_TYPE_NONE);
    }
    const int wrong = AVERROR(EINVAL);
    const struct {
        jlong picture;
        int format, width, result;
    } fills[] = {{address, -1, 9, wrong},
                 {address, 9999, 9, wrong},
                 {address, 0, INT_MAX, wrong},
                 {0, 0, 9, wrong},
                 {address, 0, 9, 131}};
    for (const auto& [picture, format, width, result] : fills)
        EXPECT_EQ(Tarnwick(avpicture_1fill)(env, nullptr, picture, memory, format, width, 9), result);
    EXPECT_EQ(planes(), "0:9 81:5 106:5 -1:0 ");
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
    EXPECT_EQ(packet.data[0], 0) << "padding";
    av_packet_unref(&packet);
    EXPECT_EQ(set(data, 0, 3), (Bytes{1, 2, 3})) << "an empty packet is given a buffer";
    av_packet_unref(&packet);
}

// Each array has room for its picture and not a byte more: -Xcheck:jni ends the process when libswscale
// writes behind it, as it would for most of the odd sizes if it worked on them in place. A picture is given
// as it is described: part of a larger one, into part of a larger one, in slices of their own.
TEST(Primitives, ScalesAsLibswscaleDoes) {
    const struct {
        Format from, to;                       // the context's
        const char *source = "", *target = ""; // where they are others
    } cases[] = {
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
    for (const auto& [from, to, largerSource, largerTarget] : cases) {
        SCOPED_TRACE(testing::Message() << from.number << " " << from.width << " to " << to.number);
        const LocalFrame references;
        JNIEnv* env = javaEnv();
        const Format source = *largerSource ? largerSource : from, target = *largerTarget ? largerTarget : to;
        Bytes picture = noise(source.size());
        jbyteArray given = javaArray(picture), last = javaArray(target.size());
        const Bytes expected = scaledDirectly(from, partOf(source, picture, from), to);
        const Context context(from, to);
        const int size = target.size();
        for (jarray array : {jarray{env->NewShortArray((size + 1) / 2)},
                             jarray{env->NewIntArray((size + 3) / 4)}, jarray{last}}) {
            EXPECT_EQ(scaleArray(context.address, given, source, 0, from.height, array, target), to.height);
            EXPECT_TRUE(partOf(target, take(array, static_cast<size_t>(size)), to) == expected);
        }
        EXPECT_TRUE(bytesOf(given) == picture);
        EXPECT_EQ(std::ranges::count(bytesOf(last), 0xEE), // around it, and where it came out by chance
                  size - to.size() + std::ranges::count(expected, 0xEE));
        const FrameOwner frame = frameOver(source, picture);
        EXPECT_EQ(scaleFrame(context.address, frame.get(), 0, from.height, last, target), to.height);
        EXPECT_TRUE(partOf(target, bytesOf(last), to) == expected);
        EXPECT_EQ(takeException(), "");
    }
}

// The results are libswscale's where it does not end the process over the slices or over a context of this
// kind, and the picture that of a whole one.
TEST(Primitives, SlicesComeFromEitherEnd) {
    constexpr int fast = SWS_FAST_BILINEAR;
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
        {"rows again", "yuvj422p 16x60", "nv12 152x24", fast, {{0, 55, 22}, {55, 4, 0}, {59, 1, 2}}},
        {"mosaic", "bayer_rggb8 16x16", "bgra 8x8", SWS_BILINEAR, {{0, 8, 0}, {8, 8, 8}}},
        {"two contexts", "nv12 33x505", "nv12 33x2", SWS_GAUSS, {{0, 232, 0}, {232, 273, 2}}},
        {"full buffers",
         "gray 128x80",
         "yuvj420p 17x10",
         SWS_POINT,
         {{0, 20, 2}, {20, 36, 4}, {56, 4, 0}, {60, 18, 0}, {78, 2, 4}}},
        {"XYZ", "bgr24 66x16", "xyz12be 18x2", SWS_BICUBIC, {{0, 3, 0}, {3, 10, 0}, {13, 3, 2}}},
        {"odd upwards", "nv12 21x9", "yuv422p 29x48", SWS_BICUBIC, {{8, 1, 0}, {2, 6, 0}, {0, 2, 48}}},
        {"odd RGB", "rgb24 21x8", "yuv420p 21x9", SWS_BILINEAR, {{4, 4, 0}, {0, 4, 9}}},
        {"narrow chroma", "yuv420p 16x8", "yuv410p 8x8", fast, {{0, 8, 8}}},
    };
    for (const auto& [what, from, to, flags, slices] : cases) {
        SCOPED_TRACE(what);
        const LocalFrame references;
        Bytes picture = noise(from.size());
        if (*what == 'p') // the rows of a pair are given the same chroma, wherever it begins
            std::fill(picture.begin() + from.width * from.height, picture.end(), uint8_t{77});
        else if (*what == 'o' && from.pixels() == AV_PIX_FMT_RGB24) // and nothing lies behind a slice
            std::fill_n(picture.begin() + 4 * 3 * from.width, 3, uint8_t{0});
        const int ordinary = flags == fast && to.width == 8 ? SWS_BILINEAR : flags;
        EXPECT_TRUE(scaledInSlices(from, picture, to, flags, slices) ==
                    scaledDirectly(from, picture, to, ordinary));
    }
}

// Sinc leaves what libswscale's tables have room for; that lay beside them ended the process.
TEST(Primitives, SharpPicturesStayWithinTheTables) {
    const LocalFrame references;
    const int flags = SWS_SINC | SWS_ACCURATE_RND;
    const Format from{AV_PIX_FMT_YUV420P9LE, 32, 60}, yuv{AV_PIX_FMT_YUV422P, 32, 60},
        to{AV_PIX_FMT_RGBA, 32, 60};
    for (const int brightest : {255, 1}) {
        Bytes picture = noise(from.size());
        for (size_t i = 0; brightest == 1 && i < picture.size(); ++i)
            picture[i] = static_cast<uint8_t>(i < 64 || i % 2 ? 0 : 160 + picture[i] % 32);
        const Bytes limited = scaledDirectly(yuv, scaledDirectly(from, picture, yuv, flags), to, flags);
        EXPECT_TRUE(scaledInSlices(from, picture, to, flags, {{0, 60, 60}}) ==
                    (brightest == 1 ? scaledDirectly(from, picture, to, flags) : limited))
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
            EXPECT_TRUE(scaledInSlices(from, picture, to, SWS_BILINEAR, {{0, 9, to.height}}) ==
                        scaledDirectly(filled, expected, to))
                << pixels << to.number;
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
    const int wrong = AVERROR(EINVAL);
    const Format none{-1, 32, 8}, unknown{9999, 32, 8}, huge{AV_PIX_FMT_BGRA, INT_MAX, 8};
    const Format half{AV_PIX_FMT_BGRA, 32, 4}, gray{AV_PIX_FMT_GRAY8, 8, 8}, small{AV_PIX_FMT_YUV420P, 6, 6};
    const struct {
        int ofArray, ofFrame;
        jobject source;
        Format picture;
        jobject target;
        Format result;
    } pictures[] = {
        {-1, -1, source, from, nullptr, to},
        {-1, -1, source, from, objects, to},
        {-1, -1, source, from, env->NewShortArray(to.size() / 2 - 1), to},
        {-1, 8, nullptr, from, target, to},
        {-1, 8, objects, from, target, to},
        {-1, 8, javaArray(from.size() - 1), from, target, to},
        {wrong, 8, javaArray(0), none, target, to},
        {wrong, 8, source, unknown, target, to},
        {wrong, 8, source, huge, target, to},
        {wrong, wrong, source, from, javaArray(0), none},
        {wrong, wrong, source, from, target, unknown},
        {wrong, wrong, source, from, target, huge},
        // Of what a context reads or writes beyond the array, there are zeros to read and nothing is written.
        {8, 8, source, from, javaArray(half.size()), half},
        {8, 8, source, from, javaArray(gray.size()), gray},
        {8, 8, javaArray(small.size()), small, target, to},
    };
    for (const auto& [ofArray, ofFrame, given, described, array, result] : pictures) {
        SCOPED_TRACE(&ofArray - &pictures[0].ofArray);
        EXPECT_EQ(scaleArray(context.address, given, described, 0, 16, array, result), ofArray);
        EXPECT_EQ(scaleFrame(context.address, frame.get(), 0, 16, array, result), ofFrame);
    }
    EXPECT_EQ(scaleFrame(0, frame.get(), 0, 16, target, to), -1);
    EXPECT_EQ(scaleFrame(context.address, nullptr, 0, 16, target, to), -1);
    EXPECT_EQ(scaleArray(0, source, from, 0, 16, target, to), -1);
    const Part outside[] = {{8, 9, wrong},       {-2, 16, wrong},     {0, -2, wrong},
                            {INT_MAX, 2, wrong}, {2, INT_MAX, wrong}, {3, 3, wrong},
                            {4, 3, wrong},       {4, 0, 0},           {4, 4, 0}};
    for (const auto& [row, rows, result] : outside) {
        EXPECT_EQ(scaleFrame(context.address, frame.get(), row, rows, target, to), result) << row;
        EXPECT_EQ(scaleArray(context.address, source, from, row, rows, target, to), result) << row;
    }
    const Part behindSixRows[] = {{4, 4, -1}, {8, 8, -1}, {6, 0, 0}, {0, 16, 8}, {0, 6, 2}, {6, 10, 6}};
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
    frame->data[1] = nullptr;
    EXPECT_EQ(scaleFrame(reinterpret_cast<jlong>(other.get()), frame.get(), 0, 8, target, to), 0);
    EXPECT_EQ(*reinterpret_cast<const AVClass**>(other.get()), sws_get_class());
}

TEST(Primitives, ContextsAreReusedOrReplaced) {
    const Format unsized{AV_PIX_FMT_YUV420P, -1, 16};
    const Format from = "yuv420p 16x16", to = "rgb24 32x32", palette = "pal8 32x32";
    const jlong context = cachedContext(0, from, to);
    ASSERT_NE(context, 0);
    EXPECT_EQ(cachedContext(context, from, to), context);
    EXPECT_EQ(cachedContext(context, from, palette), 0);
    for (const int format : {-1, 9999})
        EXPECT_EQ(cachedContext(0, from, {format, 32, 32}), 0) << format;
    EXPECT_EQ(cachedContext(0, unsized, to), 0);
}
