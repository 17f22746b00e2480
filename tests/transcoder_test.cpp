#include "com_kelvane_media_transform_codec_MIRVProcessor.h"
#include "support/JavaMachine.h"
#include "support/OpenH264.h"
#include "support/Output.h"
#include "transcoder/MIRVProcessor.h"
#include "video/I420.h"

#include <algorithm>
#include <cstring>
#include <map>
#include <thread>

#define MIRVProcessor(name) Java_com_kelvane_media_transform_codec_MIRVProcessor_##name

namespace {

// A transcoder as Java has it.
class JavaTranscoder {
public:
    explicit JavaTranscoder(int outputs) : handle(MIRVProcessor(open)(javaEnv(), nullptr, outputs)) {}
    ~JavaTranscoder() { MIRVProcessor(close)(javaEnv(), nullptr, handle); }
    void apply(int id, const char* key, const std::string& value) {
        const LocalFrame references;
        EXPECT_EQ(
            MIRVProcessor(apply)(javaEnv(), nullptr, id, javaString(key), javaString(value.c_str()), handle),
            0);
    }
    void addRendition(int id, int width, int height, int bitrate = 400'000) {
        apply(id, "videoWidth", std::to_string(width));
        apply(id, "videoHeight", std::to_string(height));
        apply(id, "videoBR", std::to_string(bitrate));
        apply(id, "videoFPS", "25");
    }
    void start() { EXPECT_EQ(MIRVProcessor(start)(javaEnv(), nullptr, handle), 1); }
    int write(jobject listener, jlong timestamp, const Bytes& unit) {
        const LocalFrame references;
        return MIRVProcessor(write)(javaEnv(), nullptr, listener, timestamp, javaArray(unit), handle);
    }
    int decode(jlong timestamp, const Bytes& unit) {
        const LocalFrame references;
        return MIRVProcessor(decode)(javaEnv(), nullptr, timestamp, javaArray(unit), handle);
    }
    int encode(int position, jobject listener) {
        return MIRVProcessor(encode)(javaEnv(), nullptr, position, listener, handle);
    }
    int drain(jobject listener) { return MIRVProcessor(drain)(javaEnv(), nullptr, listener, handle); }
    jlong pictureTime() { return MIRVProcessor(pictureTime)(javaEnv(), nullptr, handle); }
    int status(int position) { return MIRVProcessor(status)(javaEnv(), nullptr, position, handle); }
    CoderOut& output(int i) {
        return reinterpret_cast<MIRVProcessor*>(handle)->outputs[static_cast<size_t>(i)];
    }

    const jlong handle;
};

class Transcoder : public WithOpenH264 {
protected:
    ~Transcoder() override { EXPECT_EQ(library.created, library.destroyed); }

    const LocalFrame references;
    const std::vector<Bytes> units = accessUnits("baseline.h264"); // 176x144, no reordering
    const Bytes noUnit{1, 2, 3, 4, 5};
};

std::vector<int> indexes(const std::vector<Listener::Call>& calls) {
    std::vector<int> list;
    for (const Listener::Call& call : calls)
        list.push_back(call.index);
    return list;
}

} // namespace

TEST_F(Transcoder, IdsClaimOutputsInOrderAndKeysSetTheirFields) {
    std::string printed = printedBy([&] {
        JavaTranscoder transcoder(3);
        transcoder.apply(7, "videoWidth", "640");
        transcoder.apply(9, "videoWidth", "320");
        transcoder.apply(7, "videoHeight", "360");
        transcoder.apply(0, "debug", "3"); // id 0 never stays claimed
        EXPECT_EQ(transcoder.output(2).index, 0);
        transcoder.apply(-4, "nonsense", "12");
        transcoder.apply(5, "videoBR", "1");
        const CoderOut &first = transcoder.output(0), &second = transcoder.output(1),
                       &third = transcoder.output(2);
        EXPECT_EQ(std::vector({first.index, first.width, first.height}), std::vector({7, 640, 360}));
        EXPECT_EQ(std::vector({second.index, second.width, second.height}), std::vector({9, 320, 0}));
        EXPECT_EQ(std::vector({third.index, third.width, third.debug}), std::vector({-4, 0, 3}));
    });
    EXPECT_EQ(printed, "MIRVProcessor_open outputs:3\nopening 3\nAVC decoder codec opened 0\n"
                       "MIRVProcessor_apply \napply index 7 key videoWidth val 640\n"
                       "MIRVProcessor_apply \napply index 9 key videoWidth val 320\n"
                       "MIRVProcessor_apply \napply index 7 key videoHeight val 360\n"
                       "MIRVProcessor_apply \napply index 0 key debug val 3\n"
                       "MIRVProcessor_apply \napply index -4 key nonsense val 12\n"
                       "MIRVProcessor_apply \napply fail index 5 key videoBR val 1\n"
                       "MIRVProcessor_close \nCoderOut::close index 7  w 640, h 360\n"
                       "CoderOut::close index 9  w 320, h 0\nCoderOut::close index -4  w 0, h 0\n");
    printedBy([&] {
        JavaTranscoder transcoder(1);
        int value = 100;
        for (const char* key :
             {"videoHeight", "videoWidth", "videoBR", "videoFPS", "videoKey", "videoEncMode", "videoBRMax",
              "videoQPMax", "videoQPMin", "videoEncProfile", "debug"})
            transcoder.apply(1, key, std::to_string(value++));
        transcoder.apply(1, "VideoBR", "7"); // keys are case-sensitive
        transcoder.apply(1, "debug", "on");
        const CoderOut& set = transcoder.output(0);
        EXPECT_EQ(std::vector({set.height, set.width, set.bitrate, set.fps, set.keyInterval, set.encMode,
                               set.maxBitrate, set.maxQp, set.minQp, set.profile, set.debug}),
                  std::vector({100, 101, 102, 103, 104, 105, 106, 107, 108, 109, 0}));
    });
}

TEST_F(Transcoder, EveryWriteCallsBackOncePerOutputInOrder) {
    Listener listener;
    std::map<int, std::vector<Bytes>> renditions;
    printedBy([&] {
        JavaTranscoder transcoder(3);
        transcoder.addRendition(30, 96, 80);
        transcoder.addRendition(20, 176, 144);
        transcoder.apply(0, "videoBR",
                         "400000"); // the third output stays unclaimed and takes the input's size
        transcoder.start();
        constexpr jlong first = 5'000'000'000;
        for (size_t i = 0; i < units.size(); ++i) {
            EXPECT_EQ(transcoder.write(listener.object(), first + static_cast<jlong>(i), units[i]), 1);
            const auto calls = listener.take();
            EXPECT_EQ(indexes(calls), (std::vector{30, 20, 0}));
            for (const Listener::Call& call : calls) {
                EXPECT_EQ(call.timestamp, 705'032'704 + static_cast<int>(i));
                EXPECT_TRUE(call.hasData);
                renditions[call.index].push_back(call.data);
            }
            EXPECT_EQ(library.timestamps.back(), 705'032'704 + static_cast<int>(i));
        }
        // What gives no picture gives null buffers, and touches no encoder.
        const size_t encoded = library.timestamps.size();
        EXPECT_EQ(transcoder.write(listener.object(), 0xFFFFFFFF, noUnit), -1);
        EXPECT_EQ(transcoder.write(listener.object(), 1, {0, 0, 0, 1}), 0);
        const auto calls = listener.take();
        EXPECT_EQ(indexes(calls), (std::vector{30, 20, 0, 30, 20, 0}));
        EXPECT_EQ(calls.at(0).timestamp, -1);
        for (const Listener::Call& call : calls)
            EXPECT_FALSE(call.hasData);
        EXPECT_EQ(library.timestamps.size(), encoded);
    });

    const std::vector<Picture> source = referenceDecode(units);
    const std::map<int, std::pair<int, int>> sizes{{30, {96, 80}}, {20, {176, 144}}, {0, {176, 144}}};
    for (const auto& [id, size] : sizes) {
        SCOPED_TRACE(id);
        const std::vector<Picture> decoded = referenceDecode(renditions[id]);
        ASSERT_EQ(decoded.size(), source.size());
        for (size_t i = 0; i < decoded.size(); ++i) {
            EXPECT_EQ(std::pair(decoded[i].width, decoded[i].height), size);
            if (size.first == 176) {
                EXPECT_GT(psnr(decoded[i].i420, source[i].i420, 176 * 144), 30) << "picture " << i;
            }
        }
    }
}

TEST_F(Transcoder, ScaledPicturesAreLibswscalesOwn) {
    Listener listener;
    Picture source = referenceDecode({units[0]}).at(0);
    const FrameOwner expected(av_frame_alloc());
    expected->format = AV_PIX_FMT_YUV420P;
    expected->width = 96;
    expected->height = 80;
    av_frame_get_buffer(expected.get(), 0);
    uint8_t* const planes[] = {source.i420.data(), source.i420.data() + 176 * 144,
                               source.i420.data() + 176 * 144 * 5 / 4};
    const int strides[] = {176, 88, 88};
    const ScalerOwner scaler(sws_getContext(176, 144, AV_PIX_FMT_YUV420P, 96, 80, AV_PIX_FMT_YUV420P,
                                            SWS_BICUBIC, nullptr, nullptr, nullptr));
    sws_scale(scaler.get(), planes, strides, 0, 144, expected->data, expected->linesize);
    printedBy([&] {
        JavaTranscoder transcoder(1);
        transcoder.addRendition(1, 96, 80);
        transcoder.write(listener.object(), 0, units[0]);
        const MallocBuffer packed = packPicture(*expected), scaled = packPicture(*transcoder.output(0).frame);
        EXPECT_EQ(std::memcmp(packed.get(), scaled.get(), 96 * 80 * 3 / 2), 0);
    });
}

TEST_F(Transcoder, OpensLateAndFollowsTheInputsSize) {
    Listener listener;
    const std::vector<Bytes> changing = accessUnits("size_change.h264"); // 160x96, 320x180, 160x96
    const std::string printed = printedBy([&] {
        JavaTranscoder transcoder(2);
        transcoder.apply(1, "videoWidth", "128"); // half a size is none: this output takes the input's
        transcoder.apply(1, "videoBR", "200000");
        transcoder.apply(0, "videoBR", "200000");
        for (const Bytes& unit : changing)
            transcoder.write(listener.object(), 0, unit);
        EXPECT_EQ(transcoder.output(0).width, 160);
        // Asking for another size now reaches neither the encoder nor the picture scaled into.
        transcoder.apply(1, "videoWidth", "320");
        transcoder.apply(1, "videoHeight", "200");
        for (size_t i : {0, 5, 10})
            transcoder.write(listener.object(), 0, changing[i]);
        // Started again, the output has its new size, and the scaler made for the old one is gone.
        transcoder.start();
        transcoder.write(listener.object(), 0, changing[0]);
        EXPECT_EQ(transcoder.output(0).frame->width, 320);
        EXPECT_EQ(transcoder.output(0).frame->height, 200);
    });
    size_t at = 0;
    for (const char* line :
         {"CoderOut::open index 1  w 160, h 96\n", "sws_context init 160  96 \n",
          "CoderOut::open index 0  w 160, h 96\n", "sws_context init 160  96 \n",
          "set/update w:320  h:180\nsws_context reinit \nsws_context reinit \n",
          "set/update w:160  h:96\nsws_context reinit \nsws_context reinit \n",
          "apply index 1 key videoHeight val 200\n", "sws_context reinit \nsws_context reinit \n",
          "start 2\nopening 1\nCoderOut::open index 1  w 320, h 200\n", "opening 0\n",
          "sws_context init 160  96 \nsws_context init 160  96 \n",
          "CoderOut::close index 1  w 320, h 200\n"}) {
        at = printed.find(line, at);
        ASSERT_NE(at, std::string::npos) << "no " << line << " in its place in:\n" << printed;
        ++at;
    }
    int withData = 0;
    for (const Listener::Call& call : listener.take())
        withData += call.hasData;
    EXPECT_EQ(withData, 2 * (15 + 3 + 1));
}

TEST_F(Transcoder, PicturesKeepTheirOwnTimesThroughReordering) {
    Listener listener;
    const std::vector<Bytes> reordered = accessUnits("bframes.h264");
    const std::vector<Picture> expected = referenceDecode(reordered);
    printedBy([&] {
        JavaTranscoder transcoder(1);
        transcoder.addRendition(1, 160, 96);
        transcoder.start();
        size_t pictures = 0;
        for (size_t i = 0; i < reordered.size(); ++i) {
            pictures +=
                transcoder.write(listener.object(), 90'000 + static_cast<jlong>(i), reordered[i]) == 1;
            EXPECT_EQ(transcoder.pictureTime(), pictures ? 90'000 + expected[pictures - 1].accessUnit : 0);
        }
        const auto calls = listener.take();
        for (size_t i = 0; i < calls.size(); ++i)
            EXPECT_EQ(calls[i].timestamp, 90'000 + static_cast<int>(i));

        // At the end of the stream, the callbacks carry the pictures' own times as well.
        EXPECT_EQ(transcoder.drain(listener.object()), 1);
        EXPECT_EQ(transcoder.drain(nullptr), 1);
        EXPECT_EQ(listener.take().size(), 1u);
        EXPECT_EQ(transcoder.encode(0, listener.object()), 1);
        EXPECT_EQ(listener.take().at(0).timestamp, transcoder.pictureTime());
        EXPECT_EQ(transcoder.pictureTime(), 90'000 + expected.back().accessUnit);
        EXPECT_EQ(transcoder.drain(listener.object()), 0);
        EXPECT_TRUE(listener.take().empty());
        EXPECT_EQ(transcoder.encode(0, listener.object()), 0);
        EXPECT_FALSE(listener.take().at(0).hasData);
    });
    ASSERT_EQ(library.timestamps.size(), reordered.size());
    for (size_t i = 0; i < library.timestamps.size(); ++i)
        EXPECT_EQ(library.timestamps[i], 90'000 + expected[i].accessUnit);
}

TEST_F(Transcoder, OneOutputsFailureLeavesTheOthersAlone) {
    Listener listener;
    const std::string printed = printedBy([&] {
        JavaTranscoder transcoder(4);
        transcoder.addRendition(1, 8, 8); // too small for OpenH264
        transcoder.apply(1, "debug", "1");
        transcoder.addRendition(2, 96, 80);
        transcoder.addRendition(3, -96, 80);
        transcoder.apply(3, "debug", "1");
        transcoder.addRendition(4, 2'000'000, 2'000'000); // no memory for such a picture
        EXPECT_EQ(transcoder.status(1), 2);
        transcoder.start();
        const int statuses[] = {0, 0, -1}; // the first one opens, and fails at every picture
        for (const int position : {0, 1, 2})
            EXPECT_EQ(transcoder.status(position), statuses[position]);
        for (size_t i = 0; i < 3; ++i)
            transcoder.write(listener.object(), 0, units[i]);
        library.skipPictures = true;
        transcoder.write(listener.object(), 0, units[3]);
        library.skipPictures = false;
        transcoder.write(listener.object(), 0, units[4]);
        EXPECT_EQ(transcoder.output(1).coder->frameCount, 4u);
    });
    std::vector<int> withData;
    for (const Listener::Call& call : listener.take())
        if (call.hasData) withData.push_back(call.index);
    EXPECT_EQ(withData, std::vector(4, 2));
    for (const char* line :
         {"error \nfail2 code 0 \n", "opened -1\ncoder opened, error=-1  -", "fail2context -1 \n"})
        EXPECT_NE(printed.find(line), std::string::npos) << "no " << line << " in:\n" << printed;
}

TEST_F(Transcoder, ListenersMayThrowLackTheMethodOrChange) {
    Listener listener, other("com/kelvane/media/test/OtherListener");
    jobject mute = javaEnv()->AllocObject(javaEnv()->FindClass("java/lang/Object"));
    printedBy([&] {
        JavaTranscoder transcoder(3);
        EXPECT_EQ(transcoder.write(mute, 0, noUnit), -1);
        EXPECT_EQ(transcoder.write(mute, 0, units[0]), 1);
        EXPECT_EQ(takeException(), "");

        listener.throwAtCall(1);
        EXPECT_EQ(transcoder.write(listener.object(), 0, units[1]), 1);
        EXPECT_EQ(takeException(), "java.lang.IllegalStateException");
        EXPECT_EQ(listener.take().size(), 3u) << "an exception costs no output its call";
        listener.throwAtCall(4);
        EXPECT_EQ(transcoder.write(listener.object(), 0, noUnit), -1);
        EXPECT_EQ(takeException(), "java.lang.IllegalStateException");
        EXPECT_EQ(listener.take().size(), 3u);

        EXPECT_EQ(transcoder.write(other.object(), 0, units[2]), 1);
        EXPECT_EQ(other.take().size(), 3u);
        EXPECT_EQ(transcoder.write(mute, 0, units[3]), 1);
        EXPECT_EQ(transcoder.write(listener.object(), 0, units[4]), 1);
        EXPECT_EQ(listener.take().size(), 3u);

        const size_t encoded = library.timestamps.size();
        EXPECT_EQ(transcoder.write(nullptr, 0, units[5]), 1);
        EXPECT_EQ(library.timestamps.size(), encoded) << "a picture that nobody gets must not be referred to";
    });
}

// -Xcheck:jni complains of local references that pile up.
TEST_F(Transcoder, ManyOutputsLeaveNoLocalReferencesBehind) {
    Listener listener;
    printedBy([&] {
        JavaTranscoder transcoder(120);
        for (int id = 1; id <= 120; ++id)
            transcoder.addRendition(id, 32, 32);
        transcoder.write(listener.object(), 0, units[0]);
    });
    const auto calls = listener.take();
    EXPECT_EQ(std::count_if(calls.begin(), calls.end(), [](const auto& call) { return call.hasData; }), 120);
}

TEST_F(Transcoder, NullsZeroHandlesAndBadCountsAreHarmless) {
    JNIEnv* env = javaEnv();
    Listener listener;
    EXPECT_EQ(
        printedBy([&] {
            EXPECT_EQ(MIRVProcessor(write)(env, nullptr, listener.object(), 0, javaArray(units[0]), 0), 0);
            EXPECT_EQ(MIRVProcessor(apply)(env, nullptr, 1, javaString("debug"), javaString("1"), 0), 0);
            EXPECT_EQ(MIRVProcessor(start)(env, nullptr, 0), 1);
            EXPECT_EQ(MIRVProcessor(decode)(env, nullptr, 0, javaArray(units[0]), 0), 0);
            EXPECT_EQ(MIRVProcessor(encode)(env, nullptr, 0, listener.object(), 0), 0);
            EXPECT_EQ(MIRVProcessor(drain)(env, nullptr, listener.object(), 0), 0);
            EXPECT_EQ(MIRVProcessor(pictureTime)(env, nullptr, 0), 0);
            EXPECT_EQ(MIRVProcessor(status)(env, nullptr, 0, 0), 2);
            EXPECT_EQ(MIRVProcessor(close)(env, nullptr, 0), 0);
        }),
        "MIRVProcessor_apply \nMIRVProcessor_close \n");
    printedBy([&] {
        EXPECT_EQ(MIRVProcessor(open)(env, nullptr, -1), 0);
        EXPECT_EQ(MIRVProcessor(open)(env, nullptr, 65'537), 0);
        JavaTranscoder none(0), most(65'536);
        EXPECT_NE(most.handle, 0);
        EXPECT_EQ(none.write(listener.object(), 0, units[0]), 1);
        EXPECT_EQ(none.write(listener.object(), 0, {}), 0);
        JavaTranscoder transcoder(1);
        EXPECT_EQ(MIRVProcessor(write)(env, nullptr, listener.object(), 0, nullptr, transcoder.handle), 0);
        EXPECT_EQ(printedBy([&] {
                      MIRVProcessor(apply)(env, nullptr, 1, nullptr, javaString("1"), transcoder.handle);
                      MIRVProcessor(apply)(env, nullptr, 1, javaString("debug"), nullptr, transcoder.handle);
                  }),
                  "MIRVProcessor_apply \nMIRVProcessor_apply \n");
        EXPECT_EQ(transcoder.output(0).index, 0);
        EXPECT_EQ(transcoder.decode(0, units[0]), 1);
        for (const int position : {-1, 1, 65'536}) {
            EXPECT_EQ(transcoder.encode(position, listener.object()), 0);
            EXPECT_EQ(transcoder.status(position), 2);
        }
        EXPECT_EQ(transcoder.encode(0, nullptr), 0);
        EXPECT_EQ(transcoder.write(listener.object(), 0, {}), 0);
    });
    EXPECT_TRUE(listener.take().empty());
}

// The halves of write(), the second on a thread for each rendition, call back as write() itself does, and
// different transcoders run at the same time.
TEST_F(Transcoder, RenditionsAndTranscodersRunOnThreadsOfTheirOwn) {
    constexpr int renditions = 3;
    const auto onThread = [](const auto& work) {
        return std::thread([&work] {
            {
                const LocalFrame local;
                work();
            }
            JavaVM* machine = nullptr;
            javaEnv()->GetJavaVM(&machine);
            machine->DetachCurrentThread();
        });
    };
    const auto prepare = [](JavaTranscoder& transcoder) {
        for (int id = 1; id <= renditions; ++id)
            transcoder.addRendition(id, 32 * id, 48);
    };
    std::vector<Bytes> whole, halves;
    const auto writeAll = [&] {
        Listener listener;
        JavaTranscoder transcoder(renditions);
        prepare(transcoder);
        for (const Bytes& unit : units)
            transcoder.write(listener.object(), 0, unit);
        for (Listener::Call& call : listener.take())
            whole.push_back(std::move(call.data));
    };
    const auto encodeApart = [&] {
        JavaTranscoder transcoder(renditions);
        prepare(transcoder);
        for (size_t i = 0; i < units.size(); ++i) {
            const LocalFrame local;
            EXPECT_EQ(transcoder.decode(static_cast<jlong>(i) + (jlong{1} << 32), units[i]), 1);
            Bytes encoded[renditions];
            const auto encode = [&](int position) {
                Listener listener;
                EXPECT_EQ(transcoder.encode(position, listener.object()), 1);
                const auto calls = listener.take();
                ASSERT_EQ(calls.size(), 1u);
                EXPECT_EQ(calls[0].index, position + 1);
                EXPECT_EQ(calls[0].timestamp, static_cast<int>(i));
                encoded[position] = calls[0].data;
            };
            const auto second = [&] { encode(1); };
            const auto third = [&] { encode(2); };
            std::thread threads[] = {onThread(second), onThread(third)};
            encode(0);
            for (std::thread& thread : threads)
                thread.join();
            halves.insert(halves.end(), encoded, encoded + renditions);
        }
        Listener listener;
        EXPECT_EQ(transcoder.decode(7, noUnit), -1);
        EXPECT_EQ(transcoder.encode(2, listener.object()), 0) << "the last picture is no longer at hand";
        const auto calls = listener.take();
        EXPECT_EQ(calls.at(0).timestamp, 7);
        EXPECT_FALSE(calls.at(0).hasData);
    };
    printedBy([&] {
        std::thread other = onThread(writeAll);
        encodeApart();
        other.join();
    });
    EXPECT_EQ(whole.size(), units.size() * renditions);
    EXPECT_TRUE(whole == halves) << "the same input gives the same bytes";
}

TEST(EngineRendition, WritesEachPictureAndFreesWhatItMade) {
    printedBy([] {
        CoderOut output;
        output.bitrate = 100'000;
        const FrameOwner picture(av_frame_alloc());
        AVPacket packet{};
        EXPECT_EQ(output.write(picture.get(), &packet), 0) << "a picture without a size";
        picture->format = AV_PIX_FMT_YUV420P;
        picture->width = 64;
        picture->height = 48;
        av_frame_get_buffer(picture.get(), 32);
        for (int plane = 0; plane < 3; ++plane)
            std::fill_n(picture->data[plane], picture->linesize[plane] * (plane ? 24 : 48), uint8_t{60});
        ASSERT_EQ(output.write(picture.get(), &packet), 1);
        const MallocBuffer copy(packet.data);
        EXPECT_EQ(packet.size, output.coder->outputSize);
        EXPECT_EQ(std::memcmp(packet.data, output.coder->output.get(), static_cast<size_t>(packet.size)), 0);

        picture->data[1] = picture->data[2] = nullptr; // as in a picture without colour
        EXPECT_EQ(output.write(picture.get(), &packet), 0);
        output.close();
        output.close();
    });
}

// What MIRVProcessor.encode does without Java around it; ThreadSanitizer watches.
TEST(EngineRendition, SeveralEncodeOnePictureAtOnce) {
    constexpr size_t count = 4;
    const std::vector<Bytes> units = accessUnits("baseline.h264");
    printedBy([&] {
        VideoDecoder decoder;
        decoder.open();
        CoderOut outputs[count];
        for (size_t i = 0; i < count; ++i) {
            outputs[i].bitrate = 200'000;
            if (i % 2) outputs[i].width = outputs[i].height = 96; // the others take the picture's size
        }
        for (Bytes unit : units) {
            ASSERT_EQ(
                decoder.decode(reinterpret_cast<signed char*>(unit.data()), static_cast<int>(unit.size()), 0),
                1);
            bool encoded[count] = {};
            std::vector<std::thread> threads;
            for (size_t i = 0; i < count; ++i)
                threads.emplace_back([&, i] { encoded[i] = outputs[i].encode(decoder.frame.get()); });
            for (std::thread& thread : threads)
                thread.join();
            EXPECT_EQ(std::count(encoded, encoded + count, true), std::ptrdiff_t{count});
        }
        for (size_t i = 2; i < count; ++i) {
            const NativeOpenH264Encoder &encoder = *outputs[i].coder, &twin = *outputs[i - 2].coder;
            ASSERT_EQ(encoder.outputSize, twin.outputSize);
            EXPECT_EQ(
                std::memcmp(encoder.output.get(), twin.output.get(), static_cast<size_t>(encoder.outputSize)),
                0);
        }
        for (CoderOut& output : outputs)
            output.close();
    });
}
