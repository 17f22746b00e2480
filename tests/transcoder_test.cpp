#include "com_kelvane_media_transform_codec_MIRVProcessor.h"
#include "support/JavaMachine.h"
#include "support/OpenH264.h"
#include "support/Output.h"
#include "transcoder/MIRVProcessor.h"
#include "video/I420.h"

extern "C" {
#include <libavutil/imgutils.h>
}

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
    void addRendition(int id, int width, int height) {
        apply(id, "videoWidth", std::to_string(width));
        apply(id, "videoHeight", std::to_string(height));
        apply(id, "videoBR", "400000");
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
    // The access unit, fetched in a second call when it does not fit at first.
    Bytes encodeInto(int position, int room) {
        const LocalFrame references;
        const Bytes untouched = bytesOf(javaArray(room));
        jbyteArray data = javaArray(room);
        const int size = MIRVProcessor(encodeInto)(javaEnv(), nullptr, position, data, handle);
        if (size > room) {
            EXPECT_EQ(bytesOf(data), untouched);
            data = javaArray(size);
            EXPECT_EQ(MIRVProcessor(copyEncoded)(javaEnv(), nullptr, position, data, handle), size);
        }
        Bytes bytes = bytesOf(data);
        EXPECT_TRUE(
            std::all_of(bytes.begin() + size, bytes.end(), [](uint8_t byte) { return byte == 0xEE; }));
        bytes.resize(static_cast<size_t>(size));
        return bytes;
    }
    int drain(jobject listener) { return MIRVProcessor(drain)(javaEnv(), nullptr, listener, handle); }
    int failure(int position) { return MIRVProcessor(failure)(javaEnv(), nullptr, position, handle); }
    int renew(int position) { return MIRVProcessor(renew)(javaEnv(), nullptr, position, handle); }
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

std::string told(const std::vector<Listener::Call>& calls) {
    std::string text;
    for (const auto& [index, timestamp, hasData, data] : calls)
        text += std::to_string(index) + "@" + std::to_string(timestamp) + (hasData ? "+data " : " ");
    return text;
}

} // namespace

TEST_F(Transcoder, EachKeyReachesTheEncoder) {
    const std::pair<const char*, int> settings[] = {
        {"videoWidth", 64},     {"videoHeight", 48}, {"videoBR", 123'456},
        {"videoBRMax", 7},      {"videoFPS", 17},    {"videoKey", 33},
        {"videoEncMode", 0},    {"videoQPMax", 41},  {"videoQPMin", 21},
        {"videoEncProfile", 1}, {"debug", 1},        {"VideoBR", 7}}; // keys are case-sensitive
    std::vector<int> values;
    printedBy([&] {
        JavaTranscoder transcoder(1);
        for (const auto& [key, value] : settings) {
            transcoder.apply(1, key, std::to_string(value));
            values.push_back(value);
        }
        values.pop_back();
        transcoder.start();
        const NativeOpenH264Encoder& coder = *transcoder.output(0).coder;
        const SEncParamExt& given = library.param;
        EXPECT_EQ(values,
                  (std::vector{given.iPicWidth, given.iPicHeight, given.iTargetBitrate, coder.maxBitrate,
                               static_cast<int>(given.fMaxFrameRate), static_cast<int>(given.uiIntraPeriod),
                               given.iRCMode == RC_BITRATE_MODE ? 0 : 1, given.iMaxQp, given.iMinQp,
                               given.iEntropyCodingModeFlag, coder.debug}));
        transcoder.apply(1, "videoEncMode", "1");
        transcoder.start();
        EXPECT_EQ(library.param.iRCMode, RC_QUALITY_MODE);
    });
}

TEST_F(Transcoder, TellsItsLife) {
    Listener listener;
    std::vector<Bytes> changing; // one picture of each size
    const std::vector<Bytes> whole = accessUnits("size_change.h264");
    for (const size_t i : {0, 5, 10})
        changing.push_back(whole[i]);
    changing.push_back(keyPicture(160, 98)); // another height alone
    std::vector<int> results;
    const std::string printed = printedBy([&] {
        JavaTranscoder transcoder(3);
        transcoder.apply(7, "videoWidth", "128"); // half a size is none: this output takes the input's
        transcoder.apply(7, "videoBR", "200000");
        transcoder.addRendition(9, 96, 80);
        transcoder.apply(0, "videoBR", "200000"); // id 0 never stays claimed
        EXPECT_EQ(transcoder.output(2).index, 0);
        transcoder.apply(-4, "nonsense", "12");
        transcoder.apply(5, "videoBR", "1");
        EXPECT_EQ(transcoder.status(1), 2);
        transcoder.start();
        for (const Bytes& unit : changing)
            results.push_back(transcoder.write(listener.object(), 0, unit));
        // Asking for another size reaches neither the encoder nor the picture scaled into, until the next
        // start.
        transcoder.apply(7, "videoWidth", "320");
        transcoder.apply(7, "videoHeight", "200");
        results.push_back(transcoder.write(listener.object(), 0, changing[0]));
        transcoder.start();
        results.push_back(transcoder.write(listener.object(), 0, changing[0]));
        EXPECT_EQ(transcoder.output(0).frame->height, 200);
    });
    EXPECT_EQ(printed, "MIRVProcessor_open outputs:3\nopening 3\nAVC decoder codec opened 0\n"
                       "MIRVProcessor_apply \napply index 7 key videoWidth val 128\nMIRVProcessor_apply \n"
                       "apply index 7 key videoBR val 200000\nMIRVProcessor_apply \n"
                       "apply index 9 key videoWidth val 96\nMIRVProcessor_apply \n"
                       "apply index 9 key videoHeight val 80\nMIRVProcessor_apply \n"
                       "apply index 9 key videoBR val 400000\nMIRVProcessor_apply \n"
                       "apply index 9 key videoFPS val 25\nMIRVProcessor_apply \n"
                       "apply index 0 key videoBR val 200000\nMIRVProcessor_apply \n"
                       "apply index -4 key nonsense val 12\nMIRVProcessor_apply \n"
                       "apply fail index 5 key videoBR val 1\nstart 3\nopening 9\n"
                       "CoderOut::open index 9  w 96, h 80\nset/update w:160  h:96\n"
                       "CoderOut::open index 7  w 160, h 96\nsws_context init 160  96 \n"
                       "sws_context init 160  96 \nCoderOut::open index -4  w 160, h 96\n"
                       "sws_context init 160  96 \nset/update w:320  h:180\nsws_context reinit \n"
                       "sws_context reinit \nsws_context reinit \nset/update w:160  h:96\n"
                       "sws_context reinit \nsws_context reinit \nsws_context reinit \n"
                       "set/update w:160  h:98\nsws_context reinit \nsws_context reinit \n"
                       "sws_context reinit \nMIRVProcessor_apply \napply index 7 key videoWidth val 320\n"
                       "MIRVProcessor_apply \napply index 7 key videoHeight val 200\n"
                       "set/update w:160  h:96\nsws_context reinit \nsws_context reinit \n"
                       "sws_context reinit \nstart 3\nopening 7\nCoderOut::open index 7  w 320, h 200\n"
                       "opening 9\nCoderOut::open index 9  w 96, h 80\nopening -4\n"
                       "CoderOut::open index -4  w 160, h 96\nsws_context init 160  96 \n"
                       "sws_context init 160  96 \nsws_context init 160  96 \nMIRVProcessor_close \n"
                       "CoderOut::close index 7  w 320, h 200\nCoderOut::close index 9  w 96, h 80\n"
                       "CoderOut::close index -4  w 160, h 96\n");
    EXPECT_EQ(results, std::vector(6, 1));
    for (const Listener::Call& call : listener.take())
        EXPECT_TRUE(call.hasData) << call.index;
}

TEST_F(Transcoder, EveryWriteCallsBackOncePerOutputInOrder) {
    Listener listener, half;
    std::map<int, std::vector<Bytes>> renditions;
    printedBy([&] {
        JavaTranscoder transcoder(3), apart(3); // decodes and encodes by its halves
        for (JavaTranscoder* each : {&transcoder, &apart}) {
            each->addRendition(30, 96, 80);
            each->addRendition(20, 176, 144);
            each->apply(0, "videoBR", "400000"); // the third stays unclaimed and takes the input's size
            each->start();
        }
        constexpr jlong first = 5'000'000'000;
        for (size_t i = 0; i < units.size(); ++i) {
            const jlong time = first + static_cast<jlong>(i);
            EXPECT_EQ(transcoder.write(listener.object(), time, units[i]), 1);
            EXPECT_EQ(library.timestamps.back(), 705'032'704 + static_cast<int>(i));
            EXPECT_EQ(apart.decode(time, units[i]), 1);
            const auto calls = listener.take();
            const std::string at = std::string("@").append(std::to_string(705'032'704 + i)) + "+data ";
            EXPECT_EQ(told(calls), "30" + at + "20" + at + "0" + at);
            for (int position = 0; const Listener::Call& call : calls) {
                if (i % 3 > 0) {
                    EXPECT_EQ(apart.encodeInto(position++, i % 3 == 1 ? 9 : 100'000), call.data);
                } else {
                    EXPECT_EQ(apart.encode(position++, half.object()), 1);
                    const auto halves = half.take();
                    EXPECT_EQ(told(halves), std::to_string(call.index) + at);
                    EXPECT_EQ(halves.at(0).data, call.data);
                }
                renditions[call.index].push_back(call.data);
            }
        }
        // What gives no picture gives null buffers, and touches no encoder.
        const size_t encoded = library.timestamps.size();
        EXPECT_EQ(transcoder.write(listener.object(), 0xFFFFFFFF, noUnit), -1);
        EXPECT_EQ(transcoder.write(listener.object(), 1, {0, 0, 0, 1}), 0);
        EXPECT_EQ(apart.decode(0xFFFFFFFF, noUnit), -1);
        EXPECT_EQ(apart.encode(2, listener.object()), 0) << "the last picture is no longer at hand";
        EXPECT_EQ(apart.encodeInto(2, 100'000), Bytes());
        EXPECT_EQ(told(listener.take()), "30@-1 20@-1 0@-1 30@1 20@1 0@1 0@-1 ");
        // A picture that nobody gets must not be referred to, nor one of an output that is not there.
        EXPECT_EQ(transcoder.write(nullptr, 0, units[0]), 1);
        for (const int position : {-1, 3, 65'536}) {
            EXPECT_EQ(transcoder.encode(position, listener.object()), 0);
            EXPECT_EQ(transcoder.encodeInto(position, 9), Bytes());
            EXPECT_EQ(transcoder.status(position), 2);
        }
        EXPECT_EQ(transcoder.encode(0, nullptr), 0);
        EXPECT_EQ(MIRVProcessor(encodeInto)(javaEnv(), nullptr, 0, nullptr, transcoder.handle), 0);
        EXPECT_EQ(MIRVProcessor(copyEncoded)(javaEnv(), nullptr, 0, nullptr, transcoder.handle), 0);
        EXPECT_EQ(transcoder.write(listener.object(), 0, {}), 0);
        EXPECT_TRUE(listener.take().empty());
        EXPECT_EQ(library.timestamps.size(), encoded);
        for (const int count : {-1, 65'537})
            EXPECT_EQ(MIRVProcessor(open)(javaEnv(), nullptr, count), 0);
        JavaTranscoder none(0), most(65'536);
        EXPECT_NE(most.handle, 0);
        EXPECT_EQ(none.write(listener.object(), 0, units[0]), 1);
    });
    const auto writeToMany = [&] {
        JavaTranscoder many(200);
        for (int id = 1; id <= 200; ++id)
            many.addRendition(id, 16, 16);
        many.start();
        many.write(listener.object(), 0, units[0]);
    };
    const std::string said = printedBy([&] { printedBy(writeToMany); }, 2);
    EXPECT_EQ(said.find("WARNING"), std::string::npos) << "local references pile up:\n" << said;
    EXPECT_TRUE(std::ranges::all_of(listener.take(), &Listener::Call::hasData));

    const std::vector<Picture> source = referenceDecode(units);
    for (const int id : {30, 20, 0}) {
        const std::vector<Picture> decoded = referenceDecode(renditions[id]);
        ASSERT_EQ(decoded.size(), source.size());
        for (size_t i = 0; i < decoded.size(); ++i) {
            EXPECT_EQ(std::pair(decoded[i].width, decoded[i].height),
                      id == 30 ? std::pair(96, 80) : std::pair(176, 144));
            if (id != 30) {
                EXPECT_GT(psnr(decoded[i].i420, source[i].i420, 176 * 144), 30) << "picture " << i;
            }
        }
    }
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

TEST_F(Transcoder, AnEncoderThatFailedIsMadeAnew) {
    const std::string printed = printedBy([&] {
        JavaTranscoder transcoder(3);
        transcoder.addRendition(1, 96, 80);
        transcoder.apply(1, "videoEncMode", "1");
        transcoder.apply(1, "videoQPMax", "40");
        transcoder.addRendition(2, 64, 48);
        transcoder.apply(3, "videoBR", "400000"); // of the source's size, without an encoder yet
        transcoder.start();
        EXPECT_EQ(transcoder.failure(0), 0);
        EXPECT_EQ(transcoder.renew(2), 0);
        const auto decode = [&](size_t i) { EXPECT_EQ(transcoder.decode(0, units[i]), 1); };
        const auto encode = [&](int position) { // what comes out of it, and the failure
            const Bytes unit = transcoder.encodeInto(position, 100'000);
            return (unit.empty()             ? "none "
                    : (unit.at(4) & 31) == 7 ? "key "
                                             : "P ") +
                   std::to_string(transcoder.failure(position));
        };
        decode(0);
        EXPECT_EQ(encode(1), "key 0");
        EXPECT_EQ(encode(0), "key 0");
        decode(1);
        library.failAt = {2};
        EXPECT_EQ(encode(0), "none 3");
        EXPECT_EQ(encode(1), "P 0");
        decode(2);
        EXPECT_EQ(encode(0), "none 3") << "it fails for good";
        library.refuseToCreate = true;
        EXPECT_EQ(transcoder.renew(0), 0);
        EXPECT_EQ(encode(0), "none -1");
        library.refuseToCreate = false;
        const int others = library.otherCalls;
        EXPECT_EQ(transcoder.renew(0), 1);
        EXPECT_EQ(library.otherCalls, others + 1) << "quiet from now on, and nothing else";
        EXPECT_EQ((std::vector{library.param.iPicWidth, library.param.iPicHeight,
                               library.param.iTargetBitrate, static_cast<int>(library.param.fMaxFrameRate),
                               library.param.iMaxQp, static_cast<int>(library.param.iRCMode)}),
                  (std::vector{96, 80, 400'000, 25, 40, static_cast<int>(RC_QUALITY_MODE)}));
        EXPECT_EQ(encode(0), "key 0") << "the picture at hand, once more";
        decode(3);
        library.skipPictures = true;
        EXPECT_EQ(encode(0), "none 0") << "skipped";
        library.skipPictures = false;
        EXPECT_EQ(encode(2), "key 0");
        for (const int position : {-1, 3, 65'536}) {
            EXPECT_EQ(transcoder.failure(position), 0);
            EXPECT_EQ(transcoder.renew(position), 0);
        }
    });
    EXPECT_EQ(printed.find("noh264"), std::string::npos) << printed;
}

// What was steered holds for the encoder at work, for one that was not open yet, and for those made anew; the
// outputs of a running transcoder come and go, and the others do not notice.
TEST_F(Transcoder, IsSteeredWhileItRuns) {
    printedBy([&] {
        JavaTranscoder transcoder(2);
        transcoder.addRendition(1, 96, 80);
        transcoder.apply(1, "videoKey", "0");
        transcoder.apply(2, "videoBR", "400000"); // of the source's size
        transcoder.start();
        JNIEnv* const env = javaEnv();
        const auto steer = [&](int output, int bits, float rate) {
            return MIRVProcessor(setBitrate)(env, nullptr, output, bits, transcoder.handle) +
                   MIRVProcessor(setFrameRate)(env, nullptr, output, rate, transcoder.handle);
        };
        const auto expectOpenedWith = [&](int bits, float rate, uint32_t keyInterval) {
            EXPECT_EQ((std::vector{library.param.iTargetBitrate, library.param.iMaxBitrate,
                                   library.param.sSpatialLayers[0].iSpatialBitrate,
                                   library.param.sSpatialLayers[0].iMaxSpatialBitrate}),
                      std::vector(4, bits));
            EXPECT_EQ(library.param.sSpatialLayers[0].fFrameRate, rate);
            EXPECT_EQ(library.param.uiIntraPeriod, keyInterval);
        };
        ASSERT_EQ(transcoder.decode(0, units[0]), 1);
        EXPECT_FALSE(transcoder.encodeInto(0, 100'000).empty());
        EXPECT_EQ(MIRVProcessor(encodedAs)(env, nullptr, 0, transcoder.handle) >> 8, videoFrameTypeIDR);
        for (const int bits : {90'000, 288'000'000, 1000}) // up and down, from one end to the other
            EXPECT_EQ(steer(0, bits, 7.5F), 2) << bits;
        EXPECT_EQ(steer(1, 50'000, 99), 2);
        EXPECT_FALSE(transcoder.encodeInto(1, 100'000).empty());
        expectOpenedWith(50'000, 60, 240);
        EXPECT_EQ(transcoder.renew(0), 1);
        expectOpenedWith(1000, 7.5F, 30);
        EXPECT_EQ(transcoder.renew(1), 1);
        expectOpenedWith(50'000, 60, 240);

        EXPECT_EQ(MIRVProcessor(addOutput)(env, nullptr, transcoder.handle), 2);
        for (const int round : {0, 1}) {
            SCOPED_TRACE(round);
            transcoder.addRendition(3, 64, 48);
            EXPECT_EQ(MIRVProcessor(startOutput)(env, nullptr, 2, transcoder.handle), 1);
            expectOpenedWith(400'000, 25, 100);
            EXPECT_FALSE(transcoder.encodeInto(2, 100'000).empty());
            EXPECT_FALSE(transcoder.encodeInto(0, 100'000).empty());
            steer(2, 5000, 9);
            EXPECT_EQ(MIRVProcessor(releaseOutput)(env, nullptr, 2, transcoder.handle), 1);
            EXPECT_TRUE(transcoder.encodeInto(2, 100'000).empty());
            EXPECT_EQ(transcoder.output(2).index, 3);
        }
        for (const int output : {-1, 3}) {
            EXPECT_EQ(steer(output, 5000, 25), 0);
            EXPECT_EQ(MIRVProcessor(startOutput)(env, nullptr, output, transcoder.handle), 0);
            EXPECT_EQ(MIRVProcessor(releaseOutput)(env, nullptr, output, transcoder.handle), 0);
            EXPECT_EQ(MIRVProcessor(encodedAs)(env, nullptr, output, transcoder.handle), 0);
        }
    });
}

TEST_F(Transcoder, ListenersMayThrowLackTheMethodOrChange) {
    Listener listener, quiet, other("com/kelvane/media/test/OtherListener");
    jobject mute = javaEnv()->AllocObject(javaEnv()->FindClass("java/lang/Object"));
    printedBy([&] {
        JavaTranscoder transcoder(3), twin(3);
        const auto expectCalls = [&](Listener& called, const Bytes& unit, int result, const char* exception) {
            EXPECT_EQ(transcoder.write(called.object(), 0, unit), result);
            EXPECT_EQ(takeException(), exception);
            EXPECT_EQ(twin.write(quiet.object(), 0, unit), result);
            const auto calls = called.take(), expected = quiet.take();
            EXPECT_EQ(calls.back().hasData, result == 1);
            EXPECT_TRUE(std::ranges::equal(calls, expected, {}, &Listener::Call::data, &Listener::Call::data))
                << "an exception costs no output its call, nor a byte";
        };
        for (JavaTranscoder* each : {&transcoder, &twin}) {
            for (const int id : {1, 2, 3})
                each->addRendition(id, 96, 80);
            each->start();
        }
        EXPECT_EQ(transcoder.write(mute, 0, noUnit), -1);
        for (JavaTranscoder* each : {&transcoder, &twin})
            EXPECT_EQ(each->write(mute, 0, units[0]), 1);
        EXPECT_EQ(takeException(), "");
        listener.throwFrom(1); // another exception with each call, of which the first is kept
        expectCalls(listener, units[1], 1, "java.lang.IllegalStateException");
        listener.throwFrom(4);
        expectCalls(listener, noUnit, -1, "java.lang.IllegalStateException");
        listener.throwFrom(-1);
        EXPECT_EQ(transcoder.write(other.object(), 0, units[2]), 1);
        EXPECT_EQ(other.take().size(), 3u);
        EXPECT_EQ(twin.write(mute, 0, units[2]), 1);
        for (JavaTranscoder* each : {&transcoder, &twin})
            EXPECT_EQ(each->write(mute, 0, units[3]), 1);
        expectCalls(listener, units[4], 1, "");
        EXPECT_EQ(transcoder.drain(nullptr), 0);

        // No buffer for an access unit is an exception of the caller's, and a null buffer for the listener.
        JNIEnv* env = javaEnv();
        const JNINativeInterface_* const functions = env->functions;
        JNINativeInterface_ without = *functions;
        without.NewDirectByteBuffer = [](JNIEnv* caller, void*, jlong) -> jobject {
            caller->ThrowNew(caller->FindClass("java/lang/OutOfMemoryError"), "for the test");
            return nullptr;
        };
        env->functions = &without;
        EXPECT_EQ(transcoder.write(listener.object(), 0, units[0]), 1);
        env->functions = functions;
        EXPECT_EQ(takeException(), "java.lang.OutOfMemoryError");
        const std::vector<Listener::Call> calls = listener.take();
        EXPECT_EQ(calls.size(), 3u);
        EXPECT_TRUE(std::ranges::none_of(calls, &Listener::Call::hasData));
    });
}

TEST(EngineRendition, FollowsThePicturesSizeAndFreesWhatItMade) {
    printedBy([] {
        CoderOut output;
        output.bitrate = 100'000;
        for (const auto& [width, height] : {std::pair(0, 0), {64, 48}, {64, 32}, {32, 32}, {64, 64}}) {
            AVPacket packet{};
            const FrameOwner picture(av_frame_alloc());
            picture->format = AV_PIX_FMT_GRAY8; // its plane stands for each of the three
            picture->width = width;
            picture->height = height;
            if (width) av_frame_get_buffer(picture.get(), 32);
            std::fill_n(picture->data[0], picture->linesize[0] * height, uint8_t{60});
            for (const int plane : {1, 2}) {
                picture->data[plane] = picture->data[0];
                picture->linesize[plane] = picture->linesize[0];
            }
            ASSERT_EQ(output.write(picture.get(), &packet), width > 0) << width << "x" << height;
            const MallocBuffer copy(packet.data);
            if (!width) continue;
            EXPECT_EQ(std::pair(output.srcWidth, output.srcHeight), std::pair(width, height));
            const uint8_t* const coded = output.coder->output.get();
            EXPECT_EQ(Bytes(packet.data, packet.data + packet.size),
                      Bytes(coded, coded + output.coder->outputSize));
            picture->data[1] = picture->data[2] = nullptr; // as in a picture without colour
            EXPECT_EQ(output.write(picture.get(), &packet), 0);
        }
        output.close();
        EXPECT_FALSE(output.coder || output.frame || output.scaler);
        output.close();
    });
}

// Several renditions encode one picture at once, as MIRVProcessor.encode has them, and whatever is left out
// of the way of a picture leaves no trace in the access units. (ThreadSanitizer watches.)
TEST(EngineRendition, EncodesWhatScalingAndPackingGive) {
    struct Rendition {
        int width, height;
        bool encoded = false;
        CoderOut output{};
        NativeOpenH264Encoder bare{};
        ImageFrameOwner scaled{};
    };
    for (const char* stream :
         {"bframes.h264", "odd.h264", "yuv422.h264", "fields.h264", "size_change.h264"}) {
        Rendition renditions[] = {{0, 0}, {0, 0}, {96, 96}, {86, 50}, {85, 50}, {86, 51}};
        int compared = 0;
        printedBy([&] {
            VideoDecoder decoder;
            decoder.open();
            for (auto& [width, height, encoded, output, bare, scaled] : renditions) {
                output.width = width;
                output.height = height;
                output.bitrate = 200'000;
            }
            for (const Bytes& unit : accessUnits(stream)) {
                if (decode(decoder, unit) != 1) continue;
                const AVFrame& picture = *decoder.frame;
                std::vector<std::thread> threads;
                for (Rendition& each : renditions)
                    threads.emplace_back([&] { each.encoded = each.output.encode(decoder.frame.get()); });
                for (std::thread& thread : threads)
                    thread.join();
                for (auto& [width, height, encoded, output, bare, scaled] : renditions) {
                    if (!bare.encoder) {
                        bare.width = static_cast<uint32_t>(output.width);
                        bare.height = static_cast<uint32_t>(output.height);
                        bare.bitrate = output.bitrate;
                        bare.fps = bare.keyInterval = bare.maxBitrate = 0; // as CoderOut has them
                        bare.open();
                        scaled.reset(av_frame_alloc());
                        scaled->width = output.width;
                        scaled->height = output.height;
                        av_image_alloc(scaled->data, scaled->linesize, output.width, output.height,
                                       AV_PIX_FMT_YUV420P, 32);
                    }
                    const ScalerOwner scaler(sws_getContext(picture.width, picture.height, AV_PIX_FMT_YUV420P,
                                                            output.width, output.height, AV_PIX_FMT_YUV420P,
                                                            0, nullptr, nullptr, nullptr));
                    sws_scale(scaler.get(), picture.data, picture.linesize, 0, picture.height, scaled->data,
                              scaled->linesize);
                    const MallocBuffer packed = packPicture(*scaled);
                    ASSERT_EQ(bare.encode(packed.get(), packedPictureSize(scaled->width, scaled->height),
                                          static_cast<unsigned int>(scaled->pts)),
                              encoded);
                    ASSERT_EQ(output.coder->outputSize, bare.outputSize);
                    ASSERT_EQ(std::memcmp(output.coder->output.get(), bare.output.get(),
                                          static_cast<size_t>(bare.outputSize)),
                              0)
                        << stream << " " << width << "x" << height;
                    compared += encoded;
                }
            }
            for (Rendition& each : renditions)
                each.output.close();
        });
        EXPECT_GT(compared, 2 * static_cast<int>(std::size(renditions))) << stream;
    }
}

// Decoding goes on while kept pictures are encoded; what comes out is what a picture at a time gives.
TEST(EngineRendition, KeptPicturesAreEncodedWhileOthersAreDecoded) {
    constexpr size_t count = 2, ahead = 3;
    const std::vector<Bytes> units = accessUnits("size_change.h264");
    const auto decode = [&](MIRVProcessor& processor, size_t i) {
        Bytes unit = units[i];
        EXPECT_EQ(processor.decoder->decode(reinterpret_cast<signed char*>(unit.data()),
                                            static_cast<int>(unit.size()), static_cast<uint32_t>(40 * i)),
                  1);
    };
    const auto opened = [&] {
        auto* processor = new MIRVProcessor;
        processor->open(count);
        processor->decoder.reset(avc_dec_ctx.NewCodec());
        processor->decoder->open();
        for (size_t i = 0; i < count; ++i) {
            processor->outputs[i].bitrate = 200'000;
            processor->outputs[i].width = processor->outputs[i].height = i == 0 ? 96 : 64;
        }
        return processor;
    };
    const auto encoded = [](CoderOut& output, AVFrame* picture) {
        return output.encode(picture)
                   ? Bytes(output.coder->output.get(), output.coder->output.get() + output.coder->outputSize)
                   : Bytes();
    };
    printedBy([&] {
        std::vector<Bytes> expected[count], got[count];
        MIRVProcessor *plain = opened(), *keeping = opened();
        EXPECT_FALSE(keeping->keep(0));
        EXPECT_FALSE(keeping->makePlaces(MIRVProcessor::maxPlaces + 1));
        EXPECT_TRUE(keeping->makePlaces(2 * ahead));
        for (size_t i = 0; i < units.size(); ++i) {
            decode(*plain, i);
            for (size_t k = 0; k < count; ++k)
                expected[k].push_back(encoded(plain->outputs[k], plain->decoder->frame.get()));
        }
        std::vector<std::thread> threads;
        for (size_t from = 0; from < units.size(); from += ahead) {
            for (size_t i = from; i < from + ahead; ++i) {
                decode(*keeping, i);
                EXPECT_TRUE(keeping->keep(static_cast<uint32_t>(i % (2 * ahead))));
            }
            for (std::thread& thread : threads)
                thread.join();
            threads.clear();
            for (size_t k = 0; k < count; ++k)
                threads.emplace_back([&, k, from] {
                    for (size_t i = from; i < from + ahead; ++i)
                        got[k].push_back(encoded(keeping->outputs[k],
                                                 keeping->kept(static_cast<uint32_t>(i % (2 * ahead)))));
                });
        }
        for (std::thread& thread : threads)
            thread.join();
        for (size_t k = 0; k < count; ++k)
            EXPECT_EQ(got[k], expected[k]);
        EXPECT_EQ(keeping->kept(2 * ahead), nullptr);
        EXPECT_FALSE(keeping->keep(2 * ahead));
        plain->close(nullptr);
        keeping->close(nullptr);
    });
}
