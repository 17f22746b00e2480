#include "com_kelvane_media_transform_codec_AVCDecoder.h"
#include "fuzz/Subjects.h"
#include "support/JavaMachine.h"
#include "support/Output.h"
#include "video/AVCDecoder.h"
#include "video/I420.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>

// The decoding calls of FFmpeg 4 that are meant here are deprecated there.
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"

#define AVCDecoder(name) Java_com_kelvane_media_transform_codec_AVCDecoder_##name

namespace {

// What a call answers.
struct Answer {
    Answer(bool got, const AVFrame& frame) {
        if (!got) return;
        time = frame.pkt_pts;
        const MallocBuffer packed = packPicture(frame);
        picture.assign(packed.get(), packed.get() + packedPictureSize(frame.width, frame.height));
    }
    bool operator==(const Answer&) const = default;

    int64_t time = -1;
    Bytes picture;
};

Answer decodeWith(VideoDecoder& decoder, const Bytes& unit, uint32_t time) {
    const int got = decode(decoder, unit, time);
    return {got == 1, *decoder.frame};
}

Answer drainWith(VideoDecoder& decoder) {
    const int got = decoder.drain();
    return {got == 1, *decoder.frame};
}

// FFmpeg's decoder without anything of ours around it.
class BareDecoder {
public:
    BareDecoder() {
        context->flags2 |= AV_CODEC_FLAG2_CHUNKS;
        context->flags |= AV_CODEC_FLAG_TRUNCATED;
        EXPECT_EQ(avcodec_open2(context.get(), nullptr, nullptr), 0);
    }
    Answer decode(const Bytes& unit, uint32_t time) {
        AVPacket packet;
        av_new_packet(&packet, static_cast<int>(unit.size()));
        std::copy(unit.begin(), unit.end(), packet.data);
        packet.pts = int64_t{time} * 1000;
        int got = 0;
        avcodec_decode_video2(context.get(), frame.get(), &got, &packet);
        av_packet_unref(&packet);
        return {got > 0, *frame};
    }

private:
    const CodecContextOwner context{avcodec_alloc_context3(avcodec_find_decoder(AV_CODEC_ID_H264))};
    const FrameOwner frame{av_frame_alloc()};
};

} // namespace

// Whatever pieces a stream comes in, wherever it begins, and whichever of its fields were lost: what FFmpeg's
// decoder makes of it comes out, call by call. Most of these kinds have long runs of calls without a picture.
TEST(EngineDecoder, AnswersEveryCallAsFFmpegDoes) {
    const auto all = [](size_t) { return true; };
    const auto oneParity = [](size_t field) { return field % 2 == 0; };
    const auto oneOfThreeSeconds = [](size_t field) { return field % 2 == 0 || field % 6 == 5; };
    const struct {
        const char* vector;
        size_t from;
        bool (*keeps)(size_t accessUnit);
    } streams[] = {{"slices.h264", 0, all},
                   {"slices.h264", 5, all},
                   {"bframes.h264", 7, all},
                   {"refresh.h264", 0, all},
                   {"refresh.h264", 3, all},
                   {"fields.h264", 0, all},
                   {"fields.h264", 3, all},
                   {"fields.h264", 0, oneParity},
                   {"fields.h264", 0, oneOfThreeSeconds},
                   {"idr_fields.h264", 0, all},
                   {"idr_fields.h264", 1, all},
                   {"idr_fields.h264", 0, oneParity},
                   {"idr_fields.h264", 0, oneOfThreeSeconds},
                   {"size_change.h264", 0, all},
                   {"bframes.h264", 0, all},
                   {"baseline.h264", 4, all}};
    for (const auto& [vector, from, keeps] : streams) {
        const std::vector<Bytes> whole = accessUnits(vector);
        std::vector<Bytes> units;
        for (size_t i = from; i < whole.size(); ++i)
            if (keeps(i)) units.push_back(whole[i]);
        const std::vector<Bytes> joined = accessUnits("slices.h264");
        units.insert(units.end(), joined.begin(), joined.end());
        Bytes stream;
        for (const Bytes& unit : units)
            stream.insert(stream.end(), unit.begin(), unit.end());
        std::vector<Bytes> twice; // NAL units of which some come again: slices, but of no IDR picture
        for (const Bytes& unit : cutStream(stream, atNalUnits))
            twice.insert(twice.end(), 1 + (twice.size() % 7 == 6 && (unit[4] & 31) == 1), unit);
        for (const auto& pieces :
             {units, cutStream(stream, atNalUnits), cutStream(stream, atEither), twice}) {
            SCOPED_TRACE(testing::Message() << vector << " from " << from << ", " << units.size()
                                            << " units, " << pieces.size() << " pieces");
            VideoDecoder decoder;
            BareDecoder bare;
            int pictures = 0;
            printedBy([&] {
                EXPECT_EQ(decoder.drain(), 0) << "before open";
                decoder.open();
                EXPECT_TRUE(decoder.context->flags & AV_CODEC_FLAG_TRUNCATED) << "which another FFmpeg heeds";
                for (uint32_t i = 0; i < pieces.size(); ++i) {
                    const uint32_t time = 4294967000 + i; // times 1000, beyond 2^32; and passes it
                    const Answer expected = bare.decode(pieces[i], time);
                    ASSERT_TRUE(decodeWith(decoder, pieces[i], time) == expected) << "call " << i;
                    EXPECT_EQ(decoder.timestamp, time);
                    EXPECT_EQ(decoder.pictureReady, expected.time >= 0);
                    pictures += expected.time >= 0;
                }
                for (int call = 0; call < 4; ++call)
                    EXPECT_EQ(decoder.drain(), decoder.pictureReady);
                decoder.close();
                decoder.close();
            });
            EXPECT_GT(pictures, 20);
        }
    }
}

TEST(Decoder, TellsItsLife) {
    const LocalFrame references;
    std::vector<Bytes> units = accessUnits("size_change.h264");
    units.push_back(keyPicture(160, 98)); // another height alone
    units.push_back(keyPicture(162, 98));
    jbyteArray info = javaArray(6), output = javaArray(160 * 96 * 3 / 2);
    std::vector<int> results;
    EXPECT_EQ(printedBy([&] {
                  const jlong handle = AVCDecoder(open)(javaEnv(), nullptr);
                  EXPECT_EQ(reinterpret_cast<VideoDecoder*>(handle)->handle, handle);
                  for (const Bytes& unit : units)
                      results.push_back(
                          AVCDecoder(decode)(javaEnv(), nullptr, javaArray(unit), info, output, handle));
                  EXPECT_EQ(AVCDecoder(decode)(javaEnv(), nullptr, javaArray(units[0]), javaArray(5), output,
                                               handle),
                            1);
                  EXPECT_EQ(takeException(), "java.lang.ArrayIndexOutOfBoundsException");
                  EXPECT_TRUE(bytesOf(output) == referenceDecode({units[0]}).at(0).i420);
                  const Bytes before(static_cast<size_t>(160 * 96 * 3 / 2), 7);
                  jbyteArray other = javaArray(before);
                  EXPECT_EQ(AVCDecoder(take)(javaEnv(), nullptr, javaArray(5), other, handle), 0);
                  EXPECT_EQ(takeException(), "java.lang.ArrayIndexOutOfBoundsException");
                  EXPECT_TRUE(bytesOf(other) == before);
                  EXPECT_EQ(AVCDecoder(take)(javaEnv(), nullptr, info, other, handle), 1) << "it still waits";
                  EXPECT_TRUE(bytesOf(other) == bytesOf(output));
                  AVCDecoder(close)(javaEnv(), nullptr, handle);
              }),
              "AVC decoder codec opened 0\nset/update w:160  h:96\nset/update w:320  h:180\n" +
                  repeated("AVC decoder warning, picSize  != outLeng  86400\n", 5) +
                  "set/update w:160  h:96\nset/update w:160  h:98\n"
                  "AVC decoder warning, picSize  != outLeng  23520\nset/update w:162  h:98\n"
                  "AVC decoder warning, picSize  != outLeng  23814\nset/update w:160  h:96\n"
                  "AVC decoder codec closed\n");
    EXPECT_EQ(results, (std::vector{1, 1, 1, 1, 1, -86400, -86400, -86400, -86400, -86400, 1, 1, 1, 1, 1,
                                    -23520, -23814}));
}

TEST(EngineDecoder, RejectsInputWithoutALongStartCode) {
    VideoDecoder decoder;
    printedBy([&] { decoder.open(); });
    const Bytes rejected[] = {{0, 0, 1, 101, 136}, {0, 0, 0, 2, 103}, {0, 0, 255, 128}, {0, 0, 1}, {}};
    decoder.timestamp = 77;
    EXPECT_EQ(printedBy([&] {
                  for (const Bytes& unit : rejected) {
                      decoder.pictureReady = 1;
                      EXPECT_EQ(decode(decoder, unit, 5), -1);
                      EXPECT_EQ(std::pair(decoder.pictureReady, decoder.timestamp), std::pair(0, 77u));
                  }
              }),
              "bad input to decoder 5  0  0  1  101\n   bad input to decoder 5  0  0  0  2\n   "
              "bad input to decoder 4  0  0  -1  -128\n   bad input to decoder 3  0  0  1  0\n   "
              "bad input to decoder 0  0  0  0  0\n   ");
    const Bytes startCode{0, 0, 0, 1};
    EXPECT_EQ(decode(decoder, startCode, 6), 0);
    EXPECT_EQ(decoder.timestamp, 6u);

    VideoDecoder neverOpened;
    EXPECT_EQ(decode(neverOpened, startCode, 6), 0);
}

// Every picture of every kind, with FFmpeg's own bytes, to the last that is held back; those for which the
// array is too small wait to be taken, or are left behind.
TEST(Decoder, DeliversOrKeepsPicturesEqualToFFmpegsOwn) {
    for (const char* vector :
         {"baseline.h264", "bframes.h264", "size_change.h264", "yuv422.h264", "odd.h264", "fields.h264"}) {
        SCOPED_TRACE(vector);
        const std::vector<Bytes> units = accessUnits(vector);
        const std::vector<Picture> expected = referenceDecode(units);
        size_t decoded = 0;
        printedBy([&] {
            JNIEnv* const env = javaEnv();
            const jlong handle = AVCDecoder(open)(env, nullptr);
            for (size_t call = 0; call <= units.size() || decoded < expected.size(); ++call) {
                const LocalFrame references;
                const Picture& next = expected.at(std::min(decoded, expected.size() - 1));
                const int size = static_cast<int>(next.i420.size());
                const bool waits = decoded % 3 > 0;
                jbyteArray info = javaArray(6), output = javaArray(size), small = javaArray(size - 1);
                const auto take = [&](jbyteArray picture) {
                    return AVCDecoder(take)(env, nullptr, info, picture, handle);
                };
                if (decoded == 0 || waits) {
                    EXPECT_EQ(take(output), 0) << "nothing waits at first, or any more";
                }
                jbyteArray given = waits ? small : output;
                const int result = call < units.size()
                                       ? AVCDecoder(decodeAt)(env, nullptr, static_cast<jlong>(call) - 5,
                                                              javaArray(units[call]), info, given, handle)
                                       : AVCDecoder(drain)(env, nullptr, info, given, handle);
                if (result == 0) {
                    EXPECT_EQ(take(output), 0) << "a new call ends the waiting";
                    ASSERT_LE(call, units.size());
                    continue;
                }
                ASSERT_EQ(result, waits ? -size : 1) << "call " << call;
                EXPECT_EQ(AVCDecoder(pictureTime)(env, nullptr, handle), // the low 32 bits count
                          (next.accessUnit - 5) & 0xFFFFFFFF);
                if (decoded++ % 3 == 2) continue; // this one is left behind
                if (waits) {
                    EXPECT_EQ(take(small), -size);
                    EXPECT_EQ(take(output), 1);
                }
                EXPECT_TRUE(bytesOf(output) == next.i420) << "picture " << decoded;
                const auto byte = [](int value) { return static_cast<uint8_t>(value); };
                EXPECT_EQ(bytesOf(info),
                          (Bytes{1, byte(next.width >> 8), byte(next.width), byte(next.height >> 8),
                                 byte(next.height), byte(next.format)}));
            }
            AVCDecoder(close)(env, nullptr, handle);
        });
        EXPECT_EQ(decoded, expected.size());
    }
}

// FFmpeg waits for the rest of a picture whose end was lost. It is given up at the next picture.
TEST(EngineDecoder, GoesOnAfterAPictureThatLostItsEnd) {
    const auto loseHalf = [](Bytes& unit) { unit.resize(unit.size() / 2); };
    const auto changeEntropyCoding = [](Bytes& unit) { // in the PPS: no slice can be decoded
        constexpr uint8_t pps[] = {0, 0, 1, 0x68};
        std::search(unit.begin(), unit.end(), pps, pps + 4)[4] ^= 0x20;
    };
    const struct {
        const char* vector;
        void (*damage)(Bytes& accessUnit);
        size_t damaged, resumed; // access units: the damaged one, and the one with which pictures are back
    } cases[] = {
        {"size_change.h264", loseHalf, 4, 5},          // at an IDR picture with other parameter sets
        {"baseline.h264", changeEntropyCoding, 0, 10}, // the same
        {"fields.h264", loseHalf, 7, 9},               // a second field; with the next one
        {"refresh.h264", loseHalf, 40, 41},            // without IDR pictures
    };
    for (const auto& [vector, damage, damaged, resumed] : cases) {
        SCOPED_TRACE(vector);
        std::vector<Bytes> units = accessUnits(vector);
        damage(units.at(damaged));
        VideoDecoder decoder;
        printedBy([&] {
            decoder.open();
            for (size_t i = 0; i < units.size(); ++i) {
                const bool picture = decodeWith(decoder, units[i], static_cast<uint32_t>(i)).time >= 0;
                if (i >= damaged && i <= resumed) {
                    EXPECT_EQ(picture, i == resumed) << i;
                }
            }
        });
    }
}

// Fields of which some were lost and one is marked wrongly: FFmpeg then begins every picture and shows none,
// for ever.
TEST(EngineDecoder, ComesBackFromConfusedFields) {
    const std::vector<Bytes> good = accessUnits("fields.h264");
    VideoDecoder decoder;
    int pictures = 0;
    printedBy([&] {
        decoder.open();
        for (const Bytes& unit : accessUnits("confused_fields.h264"))
            decodeWith(decoder, unit, 0);
        for (const uint32_t pass : {1, 2, 3})
            for (const Bytes& unit : good)
                pictures += decodeWith(decoder, unit, pass).time == 3000;
        while (drainWith(decoder).time >= 0)
            ++pictures;
    });
    EXPECT_EQ(static_cast<size_t>(pictures), good.size() / 2);
}
