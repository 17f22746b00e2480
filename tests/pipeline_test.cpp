#include "bridge/JavaCall.h"
#include "com_kelvane_media_transform_codec_AVCProcessor.h"
#include "processor/AVCProcessor.h"
#include "support/JavaMachine.h"
#include "support/Modules.h"
#include "support/Output.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <optional>
#include <random>

#define AVCProcessor(name) Java_com_kelvane_media_transform_codec_AVCProcessor_##name

namespace {

constexpr jint recorderGuid = 305419896;
using Calls = std::vector<std::string>;

Bytes bigEndian(uint32_t number) {
    Bytes bytes(4);
    putBigEndian(bytes.data(), 4, number);
    return bytes;
}

jint loadModule(const std::string& path) {
    jint guid = 0;
    printedBy([&] { guid = AVCProcessor(loadLibrary)(javaEnv(), nullptr, javaString(path.c_str())); });
    return guid;
}

struct Output {
    uint32_t timestamp;
    Bytes data;
};

// A pipeline as Java has it. What it prints is kept in `printed`.
class Pipeline {
public:
    explicit Pipeline(int frameRate = 15, int bitRate = 2000000, int mode = 3)
        : handle(AVCProcessor(open)(javaEnv(), nullptr, frameRate, bitRate, mode, 257, 0x700, -1)) {}
    ~Pipeline() { close(); }
    void close() {
        if (handle) keep([&] { return AVCProcessor(close)(javaEnv(), nullptr, std::exchange(handle, 0)); });
    }
    int brew(jint guid) {
        return keep([&] { return AVCProcessor(brew)(javaEnv(), nullptr, guid, handle); });
    }
    int apply(jlong guid, const char* key, const char* value) {
        const LocalFrame references;
        return AVCProcessor(apply)(javaEnv(), nullptr, guid, javaString(key), javaString(value), handle);
    }
    int write(jlong timestamp, const Bytes& unit) {
        const LocalFrame references;
        jbyteArray info = javaArray(4);
        const int result = keep([&] {
            return AVCProcessor(write)(javaEnv(), nullptr, timestamp, javaArray(unit), info, handle);
        });
        sizeInfo = bytesOf(info);
        return result;
    }
    // Nothing when no output was pending.
    std::optional<Output> read() {
        const LocalFrame references;
        jbyteArray time = javaArray(4);
        const auto size = static_cast<int>(engine().outputSize);
        jbyteArray data = javaArray(size + 1);
        EXPECT_EQ(AVCProcessor(read)(javaEnv(), nullptr, time, data, handle), 0);
        Bytes bytes = bytesOf(data);
        EXPECT_EQ(bytes.back(), 0xEE);
        bytes.pop_back();
        const Bytes t = bytesOf(time);
        if (size == 0) {
            EXPECT_EQ(t, Bytes(4, 0xEE));
            return std::nullopt;
        }
        return Output{uint32_t{t[0]} << 24 | uint32_t{t[1]} << 16 | uint32_t{t[2]} << 8 | t[3], bytes};
    }
    VideoProcessor& engine() { return *reinterpret_cast<VideoProcessor*>(handle); }

    jlong handle;
    Bytes sizeInfo; // after the last write
    std::string printed;

private:
    int keep(const std::function<int()>& call) {
        int result = 0;
        printed += printedBy([&] { result = call(); });
        return result;
    }
};

class PipelineTest : public testing::Test {
protected:
    void SetUp() override {
        av_log_set_level(AV_LOG_QUIET);
        static const jint guid = loadModule(modulePath("recorder"));
        ASSERT_EQ(guid, recorderGuid);
        record = ModuleRecord{};
    }
    // Every object that the module made is gone, and every call came on this thread.
    void TearDown() override {
        EXPECT_EQ(record.created, record.freed);
        record.threads.insert(std::this_thread::get_id());
        EXPECT_EQ(record.threads.size(), 1u);
    }
    const LocalFrame references;
    ModuleRecord& record = moduleRecordOf("recorder");
    const std::vector<Bytes> units = accessUnits("baseline.h264"); // 30 pictures of 176x144
};

} // namespace

TEST_F(PipelineTest, WithoutAModuleTheStreamIsEncodedAgain) {
    const std::vector<Bytes> reordered = accessUnits("bframes.h264");
    const std::vector<Picture> source = referenceDecode(reordered);
    Pipeline pipeline(60, 3000000);
    std::vector<Bytes> encoded;
    for (uint32_t i = 0; i < reordered.size(); ++i) {
        const uint32_t time = 4294967290u + i; // passes 2^32
        if (pipeline.write(jlong{time} + (jlong{7} << 32), reordered[i]) == 0) {
            EXPECT_EQ(pipeline.sizeInfo, Bytes(4, 0xEE));
            continue;
        }
        const std::optional<Output> output = pipeline.read();
        ASSERT_TRUE(output);
        EXPECT_EQ(pipeline.sizeInfo, bigEndian(static_cast<uint32_t>(output->data.size())));
        EXPECT_EQ(output->timestamp, time);
        EXPECT_FALSE(pipeline.read());
        encoded.push_back(output->data);
    }
    EXPECT_EQ(pipeline.engine().encoder->frameRate, 60);
    EXPECT_EQ(pipeline.engine().encoder->bitRate, 3000000);
    EXPECT_EQ(pipeline.printed, "set/update w:320  h:180\nAVCProcessor_create_encoder  320  180\n"
                                "avcodec_open2: 320  : 180 : 60 : 3000000\nAVC encoder codec opened\n"
                                "AVC encoder Y: 320  U: 160 V: 160 \n");
    const std::vector<Picture> decoded = referenceDecode(encoded);
    ASSERT_EQ(decoded.size(), source.size() - 2) << "two pictures stay in the decoder";
    for (size_t i = 0; i < decoded.size(); ++i)
        EXPECT_GT(psnr(decoded[i].i420, source[i].i420, source[i].i420.size()), 40) << i;
}

TEST_F(PipelineTest, AModuleGetsEveryCallInOrder) {
    Pipeline pipeline(0, 500000, 0x103);
    EXPECT_EQ(pipeline.brew(recorderGuid), 1);
    EXPECT_EQ(pipeline.apply(recorderGuid, "k\xc3\xa9y", ""), -77);
    EXPECT_EQ(pipeline.apply(recorderGuid + 1, "key", "value"), -1);
    EXPECT_EQ(record.take(), (Calls{"create 1", "GetGuid", "Apply k\xc3\xa9y=", "GetGuid"}));

    const std::vector<Picture> source = referenceDecode(accessUnits("size_change.h264"));
    Calls expected;
    jlong time = 0;
    for (const Bytes& unit : accessUnits("size_change.h264")) {
        const Picture& picture = source[static_cast<size_t>(time)];
        record.process = [&](unsigned char* data, int size, int*) {
            return size == static_cast<int>(picture.i420.size()) &&
                   std::equal(data, data + size, picture.i420.begin());
        };
        if (time == 0) expected.push_back("Open 160 96 3 1 0 255");
        if (time == 5) expected.push_back("Reinit 320 180");
        if (time == 10) expected.push_back("Reinit 160 96");
        expected.push_back("Process " + std::to_string(picture.i420.size()) + " " + std::to_string(time));
        EXPECT_EQ(pipeline.write(time++, unit), 1);
        const std::optional<Output> output = pipeline.read();
        ASSERT_TRUE(output) << "the module was not given picture " << time - 1;
        const std::vector<int> types = nalTypes(output->data);
        EXPECT_EQ(std::count(types.begin(), types.end(), 5) > 0, time % 5 == 1)
            << "a new encoder at each new size";
    }
    EXPECT_EQ(record.take(), expected);
    const VideoProcessor& engine = pipeline.engine();
    EXPECT_EQ((std::array{engine.mode, engine.option1, engine.option2, engine.option3}),
              (std::array<uint8_t, 4>{3, 1, 0, 255}));
    EXPECT_EQ(engine.encoder->frameRate, 15);
    pipeline.close();
    EXPECT_EQ(record.take(), (Calls{"GetGuid", "destroy 1"}));

    const std::string opened = "\nAVC encoder codec opened\nAVC encoder Y: ";
    const std::string small = "avcodec_open2: 160  : 96 : 15 : 500000" + opened + "160  U: 96 V: 96 \n";
    const std::string reinit = "AVCProcessor_reinit_encodere\n", module = "AVCProcessor_reinit_module\n";
    EXPECT_EQ(pipeline.printed, "set/update w:160  h:96\nAVCProcessor_create_encoder  160  96\n" + small +
                                    "AVCProcessor_open_module\nset/update w:320  h:180\n" + reinit +
                                    "avcodec_open2: 320  : 180 : 15 : 500000" + opened +
                                    "320  U: 160 V: 160 \n" + module + "set/update w:160  h:96\n" + reinit +
                                    small + module);
}

TEST_F(PipelineTest, BrewReplacesTheModule) {
    const std::string missing = "  Did you forget to preload it? \n";
    Pipeline pipeline;
    EXPECT_EQ(pipeline.brew(recorderGuid + 1), 1);
    EXPECT_EQ(pipeline.printed, "Module not found. 305419897" + missing);
    EXPECT_EQ(pipeline.apply(recorderGuid, "key", "value"), -1);
    EXPECT_EQ(pipeline.write(0, units[0]), 1);
    EXPECT_TRUE(pipeline.read());

    pipeline.brew(recorderGuid);
    EXPECT_EQ(pipeline.write(1, units[1]), 1);
    pipeline.brew(recorderGuid);
    EXPECT_EQ(pipeline.write(2, units[2]), 1);
    EXPECT_EQ(record.take(),
              (Calls{"create 1", "Process 38016 1", "Close 1", "delete 1", "create 2", "Process 38016 2"}))
        << "attached late, a module is not opened";
    EXPECT_EQ(pipeline.write(3, accessUnits("size_change.h264")[0]), 1);
    EXPECT_EQ(record.take(), (Calls{"Reinit 160 96", "Process 23040 3"}));

    pipeline.printed.clear();
    record.refuseToCreate = true;
    pipeline.brew(recorderGuid);
    EXPECT_EQ(record.take(), (Calls{"Close 2", "delete 2"}));
    EXPECT_EQ(loadModule(modulePath("no_create")), 2);
    pipeline.brew(2);
    EXPECT_EQ(pipeline.printed, "Module not found. 305419896" + missing + "Module not found. 2" + missing);

    // A GUID with its top bit set: negative as an int, positive as a long.
    ModuleRecord& topBit = moduleRecordOf("top_bit");
    EXPECT_EQ(loadModule(modulePath("top_bit")), -1);
    pipeline.brew(-1);
    EXPECT_EQ(pipeline.apply(4294967295, "key", "value"), -77);
    EXPECT_EQ(pipeline.apply(-1, "key", "value"), -1);

    // A module whose GUID is no longer found is closed but cannot be destroyed.
    topBit.guid = 5;
    topBit.calls.clear();
    pipeline.close();
    EXPECT_EQ(topBit.take(), (Calls{"GetGuid", "Close 1"}));
    topBit.guid = 0;
}

TEST_F(PipelineTest, AModuleChangesMovesAndDropsPictures) {
    Pipeline pipeline;
    pipeline.brew(recorderGuid);
    record.process = [](unsigned char* data, int size, int* timestamp) {
        *timestamp += 40;
        std::fill_n(data, size, static_cast<unsigned char>(200));
        return 12;
    };
    EXPECT_EQ(pipeline.write(1000, units[0]), 1);
    EXPECT_EQ(pipeline.engine().encoder->encodedTimestamp, 1000);
    record.process = [](unsigned char*, int, int*) { return 0; };
    EXPECT_EQ(pipeline.write(1040, units[1]), 1);
    EXPECT_EQ(pipeline.sizeInfo, Bytes(4, 0xEE)) << "a dropped picture leaves it untouched";
    const std::optional<Output> first = pipeline.read();
    ASSERT_TRUE(first) << "the output before a dropped picture stays pending";
    EXPECT_EQ(first->timestamp, 1040u);
    EXPECT_GT(psnr(referenceDecode({first->data})[0].i420, Bytes(38016, 200), 38016), 40);

    // One pending output: the later of two.
    record.process = nullptr;
    EXPECT_EQ(pipeline.write(2000, units[2]), 1);
    EXPECT_EQ(pipeline.write(-1, units[3]), 1);
    const std::optional<Output> later = pipeline.read();
    ASSERT_TRUE(later);
    EXPECT_EQ(later->timestamp, 4294967295u);
    EXPECT_EQ(bigEndian(static_cast<uint32_t>(later->data.size())), pipeline.sizeInfo);
    EXPECT_FALSE(pipeline.read());
}

TEST_F(PipelineTest, PassThroughTouchesNothingButWhatTheModuleChanges) {
    Pipeline pipeline(0, 0, 257);
    for (const size_t size : {size_t{1234}, size_t{1}}) { // no start code is needed
        const Bytes unit(size, 9);
        EXPECT_EQ(pipeline.write(77 + (jlong{1} << 32), unit), 1);
        EXPECT_EQ(pipeline.sizeInfo, bigEndian(static_cast<uint32_t>(size)));
        const std::optional<Output> output = pipeline.read();
        ASSERT_TRUE(output);
        EXPECT_EQ(output->timestamp, 77u);
        EXPECT_EQ(output->data, unit);
        EXPECT_FALSE(pipeline.read());
    }
    pipeline.brew(recorderGuid);
    record.process = [](unsigned char* data, int size, int* timestamp) {
        if (size > 0) data[size - 1] = 1;
        *timestamp += 40;
        return 0;
    };
    EXPECT_EQ(pipeline.write(77, units[0]), 1);
    const std::optional<Output> output = pipeline.read();
    ASSERT_TRUE(output) << "the module's result counts for nothing here";
    EXPECT_EQ(output->timestamp, 117u);
    Bytes expected = units[0];
    expected.at(expected.size() - 1) = 1;
    EXPECT_TRUE(output->data == expected);
    EXPECT_EQ(pipeline.write(5, {}), 1);
    EXPECT_EQ(pipeline.sizeInfo, Bytes(4, 0));
    EXPECT_FALSE(pipeline.read());
    EXPECT_EQ(record.take(),
              (Calls{"create 1", "Process " + std::to_string(units[0].size()) + " 77", "Process 0 5"}));
    EXPECT_FALSE(pipeline.engine().encoder);
    EXPECT_EQ(pipeline.printed, "");
}

TEST_F(PipelineTest, WhatAModuleThrowsCountsAsZero) {
    for (const bool withoutMessage : {false, true}) {
        record.throwWithoutMessage = withoutMessage;
        Pipeline pipeline;
        const auto lines = [&](const char* call, const char* thrower, const std::function<void()>& action) {
            record.throwIn = thrower;
            const std::string expected =
                std::string("module threw in ") + call + ": " +
                (withoutMessage ? "not a std::exception" : thrower + std::string(" fails")) + "\n";
            EXPECT_EQ(printedBy(action, 2), expected);
            record.throwIn = "";
            EXPECT_FALSE(javaEnv()->ExceptionCheck());
        };
        lines("CreateVideoProcessor", "create", [&] { EXPECT_EQ(pipeline.brew(recorderGuid), 1); });
        EXPECT_NE(pipeline.printed.find("Module not found"), std::string::npos);
        pipeline.brew(recorderGuid);
        lines("GetGuid", "GetGuid", [&] { EXPECT_EQ(pipeline.apply(recorderGuid, "key", "value"), -1); });
        lines("Apply", "Apply", [&] { EXPECT_EQ(pipeline.apply(recorderGuid, "key", "value"), 0); });
        lines("Open", "Open", [&] { EXPECT_EQ(pipeline.write(0, units[0]), 1); });
        EXPECT_TRUE(pipeline.read());
        lines("Process", "Process", [&] { EXPECT_EQ(pipeline.write(1, units[1]), 1); });
        EXPECT_FALSE(pipeline.read());
        lines("Reinit", "Reinit",
              [&] { EXPECT_EQ(pipeline.write(2, accessUnits("size_change.h264")[0]), 1); });
        EXPECT_TRUE(pipeline.read());
        lines("Close", "Close", [&] { pipeline.brew(recorderGuid); });
        lines("~CModuleProcessor", "delete", [&] { pipeline.brew(recorderGuid); });
        lines("DestroyVideoProcessor", "destroy", [&] { pipeline.close(); });
    }
}

TEST_F(PipelineTest, WhatYieldsNothingSaysSo) {
    Pipeline pipeline;
    EXPECT_EQ(pipeline.write(0, {0, 0, 1}), -1);
    EXPECT_EQ(pipeline.printed, "bad input to decoder 3  0  0  1  0\n   warning, corrupt input stream\n");
    EXPECT_EQ(pipeline.write(0, {0, 0, 0, 1}), 0);
    EXPECT_EQ(pipeline.sizeInfo, Bytes(4, 0xEE));

    // An encoder that does not open, and one whose access unit is longer than the picture.
    Pipeline unopened(-1);
    EXPECT_EQ(unopened.write(0, units[0]), 0);
    EXPECT_EQ(unopened.sizeInfo, Bytes(4, 0));
    VideoEncoder tinyEncoder;
    tinyEncoder.width = tinyEncoder.height = 16;
    tinyEncoder.bitRate = 10000000;
    Bytes tiny(2000, 128);
    printedBy([&] {
        tinyEncoder.open();
        tinyEncoder.encode(reinterpret_cast<signed char*>(tiny.data()), 2000, 0);
    });
    tiny.resize(static_cast<size_t>(tinyEncoder.encodedSize));
    Pipeline noisy(15, 10000000);
    noisy.brew(recorderGuid);
    record.process = [](unsigned char* data, int size, int*) {
        std::minstd_rand random(1);
        std::generate_n(data, size, [&] { return random() & 256 ? 255 : 0; });
        return 1;
    };
    EXPECT_EQ(noisy.write(0, tiny), 0);
    EXPECT_EQ(noisy.sizeInfo, Bytes(4, 0));
    EXPECT_NE(noisy.printed.find("AVC encoder failed to encode frame\n"), std::string::npos);
    EXPECT_FALSE(noisy.read());
}

TEST_F(PipelineTest, NullAndShortArgumentsAreHarmless) {
    JNIEnv* env = javaEnv();
    Pipeline pipeline(15, 0, 1);
    pipeline.brew(recorderGuid);
    const jlong handle = pipeline.handle;
    jbyteArray data = javaArray(8, 3), info = javaArray(4);
    jstring text = javaString("text");
    EXPECT_EQ(printedBy([&] {
                  EXPECT_EQ(AVCProcessor(loadLibrary)(env, nullptr, nullptr), 0);
                  EXPECT_EQ(AVCProcessor(brew)(env, nullptr, recorderGuid, 0), 0);
                  EXPECT_EQ(AVCProcessor(apply)(env, nullptr, recorderGuid, text, text, 0), -1);
                  EXPECT_EQ(AVCProcessor(apply)(env, nullptr, recorderGuid, nullptr, text, handle), -1);
                  EXPECT_EQ(AVCProcessor(apply)(env, nullptr, recorderGuid, text, nullptr, handle), -1);
                  EXPECT_EQ(AVCProcessor(write)(env, nullptr, 0, data, info, 0), 0);
                  EXPECT_EQ(AVCProcessor(write)(env, nullptr, 0, nullptr, info, handle), 0);
                  EXPECT_EQ(AVCProcessor(write)(env, nullptr, 0, data, nullptr, handle), 0);
                  EXPECT_EQ(AVCProcessor(read)(env, nullptr, info, data, 0), 0);
                  EXPECT_FALSE(AVCProcessor(close)(env, nullptr, 0));
              }),
              "");
    EXPECT_EQ(printedBy([&] { AVCProcessor(loadLibrary)(env, nullptr, javaString("no/such.so")); }),
              "loading no/such.so\nmodule not found \nfound 0\n");
    EXPECT_EQ(bytesOf(info), Bytes(4, 0xEE));
    EXPECT_EQ(record.take(), Calls{"create 1"});

    const char* const tooShort = "java.lang.ArrayIndexOutOfBoundsException";
    EXPECT_EQ(AVCProcessor(write)(env, nullptr, 0, data, javaArray(3), handle), 1);
    EXPECT_EQ(takeException(), tooShort);
    AVCProcessor(read)(env, nullptr, nullptr, data, handle);
    AVCProcessor(read)(env, nullptr, info, nullptr, handle);
    EXPECT_EQ(pipeline.engine().outputSize, 8);
    AVCProcessor(read)(env, nullptr, info, javaArray(7), handle);
    EXPECT_EQ(takeException(), tooShort);
    EXPECT_EQ(bytesOf(info), Bytes(4, 0));
    EXPECT_FALSE(pipeline.read());
    EXPECT_EQ(AVCProcessor(write)(env, nullptr, 0, data, info, handle), 1);
    AVCProcessor(read)(env, nullptr, javaArray(3), data, handle);
    EXPECT_EQ(takeException(), tooShort);
    EXPECT_FALSE(pipeline.read());
}

// Without the virtual machine, so that the leak check sees everything a pipeline leaves behind.
TEST(EnginePipeline, FreesAllItHolds) {
    printedBy([&] {
        VideoProcessor* pipeline = proc_ctx.NewProcessor();
        pipeline->decoder.reset(avc_dec_ctx.NewCodec());
        pipeline->decoder->open();
        int newOutput = -1;
        for (Bytes unit : accessUnits("size_change.h264"))
            EXPECT_EQ(pipeline->process(reinterpret_cast<signed char*>(unit.data()),
                                        static_cast<int>(unit.size()), 0, newOutput),
                      1);
        EXPECT_GT(newOutput, 0);
        pipeline->close();
        pipeline->close();
        EXPECT_TRUE(proc_ctx.RemoveProcessor(pipeline->handle));
    });
    EXPECT_FALSE(proc_ctx.RemoveProcessor(0));
}
