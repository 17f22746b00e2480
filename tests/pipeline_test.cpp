#include "com_kelvane_media_transform_codec_AVCProcessor.h"
#include "processor/AVCProcessor.h"
#include "support/JavaMachine.h"
#include "support/Modules.h"
#include "support/Output.h"

#include <gtest/gtest.h>

#define AVCProcessor(name) Java_com_kelvane_media_transform_codec_AVCProcessor_##name

namespace {

constexpr jint recorderGuid = 305419896;
using Calls = std::vector<std::string>;

Bytes bigEndian(size_t number) {
    return {uint8_t(number >> 24), uint8_t(number >> 16), uint8_t(number >> 8), uint8_t(number)};
}

const Bytes untouched(4, 0xEE); // an array for a size or a time that was not written

// Without data and `untouched` when none was pending.
struct Output {
    Bytes timestamp, data;
};

// A pipeline as Java has it.
struct Pipeline {
    explicit Pipeline(int frameRate = 15, int bitRate = 2000000, int mode = 3)
        : handle(AVCProcessor(open)(javaEnv(), nullptr, frameRate, bitRate, mode, 257, 0x700, -1)) {}
    ~Pipeline() { close(); }
    int close() { return AVCProcessor(close)(javaEnv(), nullptr, std::exchange(handle, 0)); }
    int brew(jint guid) { return AVCProcessor(brew)(javaEnv(), nullptr, guid, handle); }
    int apply(jlong guid, const char* key = "", const char* value = "") {
        const LocalFrame references;
        return AVCProcessor(apply)(javaEnv(), nullptr, guid, javaString(key), javaString(value), handle);
    }
    int write(jlong timestamp, const Bytes& unit) {
        const LocalFrame references;
        jbyteArray info = javaArray(4);
        const int result = AVCProcessor(write)(javaEnv(), nullptr, timestamp, javaArray(unit), info, handle);
        sizeInfo = bytesOf(info);
        return result;
    }
    int drain() {
        const LocalFrame references;
        jbyteArray info = javaArray(4);
        const int result = AVCProcessor(drain)(javaEnv(), nullptr, info, handle);
        sizeInfo = bytesOf(info);
        return result;
    }
    jlong pictureTime() { return AVCProcessor(pictureTime)(javaEnv(), nullptr, handle); }
    bool attached() { return AVCProcessor(attached)(javaEnv(), nullptr, handle); }
    Output read() {
        const LocalFrame references;
        jbyteArray time = javaArray(4), data = javaArray(engine().outputSize);
        EXPECT_EQ(AVCProcessor(read)(javaEnv(), nullptr, time, data, handle), 0);
        return {bytesOf(time), bytesOf(data)};
    }
    VideoProcessor& engine() { return *reinterpret_cast<VideoProcessor*>(handle); }

    jlong handle;
    Bytes sizeInfo; // after the last write or drain
};

class PipelineTest : public testing::Test {
protected:
    static void SetUpTestSuite() {
        std::vector<jint> guids;
        for (const char* name : {"recorder", "top_bit", "no_create"})
            guids.push_back(
                AVCProcessor(loadLibrary)(javaEnv(), nullptr, javaString(modulePath(name).c_str())));
        EXPECT_EQ(guids, (std::vector{recorderGuid, -1, 2}));
    }
    void SetUp() override { record = ModuleRecord{}; }
    void TearDown() override { EXPECT_EQ(record.live, 0); }

    const LocalFrame references;
    ModuleRecord& record = moduleRecordOf("recorder");
    const std::vector<Bytes> units = accessUnits("baseline.h264"); // 30 pictures of 176x144
    const std::vector<Bytes> resized = accessUnits("size_change.h264");
};

} // namespace

TEST_F(PipelineTest, AModuleGetsEveryCallInOrder) {
    std::vector<Bytes> sizes{resized[0], resized[1], resized[5], resized[10], keyPicture(160, 98)};
    const std::vector<Picture> source = referenceDecode(sizes);
    Pipeline pipeline(60, 500000, 0x103);
    const std::string printed = printedBy([&] {
        EXPECT_EQ(pipeline.brew(recorderGuid), 1);
        EXPECT_EQ(pipeline.apply(recorderGuid, "k\xc3\xa9y", "value"), -77);
        EXPECT_EQ(pipeline.apply(recorderGuid + 1), -1);
        for (size_t i = 0; i < sizes.size(); ++i) {
            record.process = [&](unsigned char* data, int size, int*) {
                return Bytes(data, data + size) == source[i].i420 ? -1 : 0;
            };
            EXPECT_EQ(pipeline.write(static_cast<jlong>(i), sizes[i]), 1);
            EXPECT_FALSE(pipeline.read().data.empty()) << "the module was not given picture " << i;
        }
    });
    pipeline.close();
    EXPECT_EQ(record.take(), (Calls{"create", "GetGuid", "Apply k\xc3\xa9y value", "GetGuid",
                                    "Open 160 96 3 1 0 255", "Process 23040 0", "Process 23040 1",
                                    "Reinit 320 180", "Process 86400 2", "Reinit 160 96", "Process 23040 3",
                                    "Reinit 160 98", "Process 23520 4", "GetGuid", "destroy"}));
    const std::string opened = " : 60 : 500000\nAVC encoder codec opened\nAVC encoder Y: ";
    const std::string rows = opened + "160  U: 96 V: 96 \n", small = "avcodec_open2: 160  : 96" + rows;
    const std::string reinit = "AVCProcessor_reinit_encodere\n", module = "AVCProcessor_reinit_module\n";
    EXPECT_EQ(printed, "set/update w:160  h:96\nAVCProcessor_create_encoder  160  96\n" + small +
                           "AVCProcessor_open_module\nset/update w:320  h:180\n" + reinit +
                           "avcodec_open2: 320  : 180" + opened + "320  U: 160 V: 160 \n" + module +
                           "set/update w:160  h:96\n" + reinit + small + module + "set/update w:160  h:98\n" +
                           reinit + "avcodec_open2: 160  : 98" + rows + module);
}

TEST_F(PipelineTest, BrewReplacesTheModule) {
    Pipeline pipeline;
    EXPECT_EQ(pipeline.apply(recorderGuid), -1);
    EXPECT_FALSE(pipeline.attached());
    EXPECT_EQ(pipeline.write(4294967290, units[0]), 1);
    EXPECT_EQ(pipeline.read().timestamp, bigEndian(4294967290));
    for (const jint i : {1, 2}) {
        pipeline.brew(recorderGuid);
        EXPECT_TRUE(pipeline.attached());
        EXPECT_EQ(pipeline.write(i, units[static_cast<size_t>(i)]), 1);
    }
    EXPECT_EQ(pipeline.write(3, resized[0]), 1);
    EXPECT_EQ(printedBy([&] {
                  EXPECT_EQ(pipeline.brew(recorderGuid + 1), 1);
                  pipeline.brew(2); // which lacks an entry point
              }),
              "Module not found. 305419897  Did you forget to preload it? \n"
              "Module not found. 2  Did you forget to preload it? \n");
    EXPECT_EQ(record.take(),
              (Calls{"create", "Process 38016 1", "Close", "delete", "create", "Process 38016 2",
                     "Reinit 160 96", "Process 23040 3", "Close", "delete"}))
        << "attached late, a module is not opened";
    pipeline.brew(-1); // a GUID with its top bit set: negative as an int, positive as a long
    EXPECT_EQ(pipeline.apply(4294967295), -77);
    EXPECT_EQ(pipeline.apply(-1), -1);
}

TEST_F(PipelineTest, AModuleChangesMovesAndDropsPictures) {
    Pipeline pipeline;
    pipeline.brew(recorderGuid);
    record.process = [](unsigned char* data, int size, int* timestamp) {
        std::fill_n(data, size, static_cast<unsigned char>(200));
        *timestamp += 40;
        return *timestamp % 100;
    };
    EXPECT_EQ(pipeline.write(1000, units[0]), 1);
    EXPECT_EQ(pipeline.write(-42, units[1]), 1);
    EXPECT_EQ(pipeline.write(1060, units[2]), 1);
    EXPECT_EQ(pipeline.sizeInfo, untouched) << "the last picture is dropped";
    const Output output = pipeline.read();
    EXPECT_EQ(output.timestamp, bigEndian(4294967294u)) << "the later of the two that were kept";
    EXPECT_EQ(pipeline.write(1000, resized[0]), 1);
    const Bytes unit = pipeline.read().data;
    EXPECT_EQ(pipeline.sizeInfo, bigEndian(unit.size()));
    EXPECT_EQ(static_cast<size_t>(pipeline.engine().encoder->encodedSize), unit.size());
    EXPECT_GT(psnr(referenceDecode({unit}).at(0).i420, Bytes(23040, 200), 23040), 40);
}

TEST_F(PipelineTest, WhatAModuleThrowsCountsAsZeroAndIsReportedOnce) {
    const auto brew = [](Pipeline& pipeline) { return pipeline.brew(recorderGuid); };
    const auto apply = [](Pipeline& pipeline) { return pipeline.apply(recorderGuid); };
    const auto write = [&](Pipeline& pipeline) { return pipeline.write(0, units[0]); };
    const auto resize = [&](Pipeline& pipeline) {
        pipeline.write(0, units[0]);
        return pipeline.write(1, resized[0]);
    };
    const auto close = [](Pipeline& pipeline) { return pipeline.close(); };
    struct Case {
        const char *thrower, *operation;
        int result;
        std::function<int(Pipeline&)> action;
    };
    const Case cases[] = {{"create", "CreateVideoProcessor", 1, brew},
                          {"GetGuid", "GetGuid", -1, apply},
                          {"Apply", "Apply", 0, apply},
                          {"Open", "Open", 1, write},
                          {"Reinit", "Reinit", 1, resize},
                          {"Process", "Process", 1, write},
                          {"Close", "Close", 1, brew},
                          {"delete", "~CModuleProcessor", 1, brew},
                          {"destroy", "DestroyVideoProcessor", 1, close}};
    const std::string module = "module " + modulePath("recorder") + " threw ";
    for (const Case& each : cases) {
        Pipeline pipeline;
        if (each.thrower != std::string("create")) brew(pipeline);
        record.throwIn = each.thrower;
        EXPECT_EQ(printedBy([&] { EXPECT_EQ(each.action(pipeline), each.result) << each.thrower; }, 2),
                  module + "in " + each.operation + ": " + each.thrower + " fails\n");
        record.throwIn = "";
    }

    Pipeline pipeline;
    brew(pipeline);
    record.throwIn = "Process";
    EXPECT_EQ(printedBy([&] { write(pipeline); }, 2), module + "in Process: Process fails\n");
    EXPECT_EQ(printedBy([&] { write(pipeline), resize(pipeline); }, 2), "");
    EXPECT_TRUE(pipeline.read().data.empty());
    EXPECT_EQ(printedBy([&] { brew(pipeline), pipeline.close(); }, 2), module + "4 times in this pipeline\n");
}

TEST_F(PipelineTest, AModuleThatMakesNoProcessorIsNamed) {
    const std::string noObject = modulePath("faulty_no_object");
    printedBy([&] { AVCProcessor(loadLibrary)(javaEnv(), nullptr, javaString(noObject.c_str())); });
    Pipeline pipeline;
    const auto brew = [&] { EXPECT_EQ(pipeline.brew(0xfa017), 1); };
    EXPECT_EQ(printedBy(brew, 2),
              "module " + noObject + " made no processor: CreateVideoProcessor returned null\n");
    EXPECT_EQ(printedBy(brew), "") << "it was found";
    EXPECT_EQ(pipeline.apply(0xfa017), -1);
}

TEST_F(PipelineTest, WhatYieldsNothingSaysSo) {
    Pipeline pipeline(-1); // the encoder refuses this frame rate
    const std::string printed = printedBy([&] { EXPECT_EQ(pipeline.write(0, {0, 0, 1}), -1); });
    EXPECT_EQ(printed, "bad input to decoder 3  0  0  1  0\n   warning, corrupt input stream\n");
    EXPECT_EQ(pipeline.sizeInfo, untouched);
    EXPECT_EQ(pipeline.write(0, units[0]), 0);
    EXPECT_EQ(pipeline.sizeInfo, bigEndian(0));
    Pipeline closed;
    EXPECT_EQ(closed.write(0, units[0]), 1);
    for (int times = 0; times < 2; ++times)
        closed.engine().close();
    EXPECT_EQ(closed.read().timestamp, untouched) << "nothing is pending any more";
}

TEST_F(PipelineTest, PassesAccessUnitsToTheModuleAndTakesNulls) {
    JNIEnv* env = javaEnv();
    Pipeline pipeline(15, 0, 257); // of whose mode the low byte counts
    pipeline.brew(recorderGuid);
    record.process = [](unsigned char* data, int size, int* timestamp) {
        if (size > 0) data[size - 1] = 1;
        *timestamp += 40;
        return 0; // which counts for nothing here
    };
    EXPECT_EQ(pipeline.write(77 + (jlong{1} << 32), Bytes{9, 9, 9}), 1); // no start code is needed
    EXPECT_EQ(pipeline.sizeInfo, bigEndian(3));
    const Output output = pipeline.read();
    EXPECT_EQ(output.timestamp, bigEndian(117));
    EXPECT_EQ(output.data, (Bytes{9, 9, 1}));
    EXPECT_EQ(pipeline.read().timestamp, untouched);
    EXPECT_EQ(std::pair(pipeline.drain(), pipeline.pictureTime()), std::pair(0, jlong{0}));

    const jlong handle = pipeline.handle;
    jbyteArray data = javaArray(8, 3), info = javaArray(4);
    jstring text = javaString("no/such.so");
    EXPECT_EQ(AVCProcessor(write)(env, nullptr, 0, data, javaArray(3), handle), 1);
    EXPECT_EQ(takeException(), "java.lang.ArrayIndexOutOfBoundsException");
    EXPECT_EQ(printedBy([&] { EXPECT_EQ(AVCProcessor(loadLibrary)(env, nullptr, text), 0); }),
              "loading no/such.so\nmodule not found \nfound 0\n");
    EXPECT_EQ(AVCProcessor(apply)(env, nullptr, recorderGuid, nullptr, text, handle), -1);
    EXPECT_EQ(AVCProcessor(apply)(env, nullptr, recorderGuid, text, nullptr, handle), -1);
    EXPECT_EQ(AVCProcessor(read)(env, nullptr, nullptr, data, handle), 0);
    EXPECT_EQ(AVCProcessor(read)(env, nullptr, info, nullptr, handle), 0);
    EXPECT_EQ(record.take(), (Calls{"create", "Process 3 77", "Process 8 0"}));
    AVCProcessor(read)(env, nullptr, info, javaArray(7), handle);
    EXPECT_EQ(takeException(), "java.lang.ArrayIndexOutOfBoundsException");
    EXPECT_EQ(bytesOf(info), bigEndian(40));
    EXPECT_EQ(pipeline.write(5, {}), 1);
    EXPECT_EQ(pipeline.sizeInfo, bigEndian(0));
    EXPECT_EQ(pipeline.read().timestamp, untouched);
}
