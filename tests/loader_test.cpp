#include "com_kelvane_media_transform_codec_AVCEncoder.h"
#include "com_kelvane_media_transform_codec_AVCProcessor.h"
#include "fuzz/FakeJava.h"
#include "support/Media.h"
#include "support/Modules.h"
#include "support/OpenH264.h"
#include "support/Output.h"
#include "support/fake_openh264.h"
#include "video/OpenH264Loader.h"

#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <thread>

namespace fs = std::filesystem;

namespace {

// glibc knows a library that is open by the name it was opened with, whatever the working directory: these
// tests run in a process in which nothing else opens the library.
class Loader : public WithOpenH264 {
protected:
    ~Loader() override {
        fs::current_path(home);
        fs::remove_all(elsewhere);
    }

    // Puts `library` where the loader looks, in the new working directory.
    void place(const fs::path& file) {
        const fs::path target = elsewhere / COpenLoaderImpl::libraryPath;
        fs::create_directories(target.parent_path());
        fs::remove(target);
        fs::create_symlink(file, target);
    }

    std::string load(COpenLoaderImpl& loader, int expectedState) {
        return printedBy([&] {
            EXPECT_EQ(loader.LoadLib(), expectedState);
            EXPECT_EQ(loader.state, expectedState);
        });
    }

    const fs::path home = fs::current_path();
    const fs::path elsewhere = fs::temp_directory_path() / ("kelvane-loader-" + std::to_string(getpid()));
};

// The native library, which comes with loaders of its own each time that it is opened.
template <class Function>
Function* entryPoint(void* natives, const char* name, Function*) {
    return reinterpret_cast<Function*>(dlsym(natives, name));
}
#define NATIVE(name)                                                                                         \
    entryPoint(natives, "Java_com_kelvane_media_transform_codec_" #name,                                     \
               &Java_com_kelvane_media_transform_codec_##name)

jstring fakeString(const std::string& text) {
    static FakeObject object;
    object.bytes.assign(text.c_str(), text.c_str() + text.size() + 1);
    return reinterpret_cast<jstring>(&object);
}

} // namespace

TEST_F(Loader, LoadsOnceAndRetriesAfterFailures) {
    COpenLoaderImpl loader;
    EncoderLibFunctions functions;
    const auto expectNothing = [&] {
        functions.createEncoder = [](ISVCEncoder**) { return 0; };
        EXPECT_EQ(loader.GetLibFunctions(&functions), 0);
        EXPECT_FALSE(functions.createEncoder || functions.destroyEncoder || functions.getCodecVersion);
        EXPECT_FALSE(loader.libHandle);
    };
    expectNothing();

    fs::create_directories(elsewhere);
    fs::current_path(elsewhere); // where there is no library
    EXPECT_EQ(load(loader, 0), "could not load pointers\n");
    EXPECT_EQ(printedBy([&] { EXPECT_EQ(loader.LoadLibFrom(PARTIAL_OPENH264), 0); }),
              "could not load pointers\n");
    expectNothing();
    place(TEST_DATA "/baseline.h264"); // not a library
    EXPECT_EQ(load(loader, 0), "could not load pointers\n");

    place(home / COpenLoaderImpl::libraryPath);
    EXPECT_EQ(load(loader, 2), "loaded pointers\n");
    fs::remove_all(elsewhere);
    EXPECT_EQ(load(loader, 2), "pointers pre loaded\n");
    EXPECT_EQ(printedBy([&] { EXPECT_EQ(loader.LoadLibFrom("no/such.so"), 2); }), "pointers pre loaded\n");
    EXPECT_EQ(loader.GetLibFunctions(&functions), 2);
    ISVCEncoder* encoder = nullptr;
    ASSERT_EQ(functions.createEncoder(&encoder), 0);
    functions.destroyEncoder(encoder);
    EXPECT_EQ(library.destroyed, 1);
    EXPECT_GE(functions.getCodecVersion().uMajor, 1u);
}

TEST_F(Loader, ConcurrentFirstLoadsGiveWholeRecords) {
    const std::string printed = printedBy([] {
        for (int round = 0; round < 50; ++round) {
            COpenLoaderImpl loader;
            std::vector<std::thread> threads;
            for (int i = 0; i < 4; ++i)
                threads.emplace_back([&loader] {
                    if (loader.state == 0) loader.LoadLib();
                    EncoderLibFunctions functions;
                    ASSERT_EQ(loader.GetLibFunctions(&functions), 2);
                    ASSERT_TRUE(functions.createEncoder && functions.destroyEncoder &&
                                functions.getCodecVersion);
                });
            for (std::thread& thread : threads)
                thread.join();
        }
    });
    size_t loads = 0;
    for (size_t at = 0; (at = printed.find("loaded pointers\n", at)) != std::string::npos; ++at)
        ++loads;
    EXPECT_EQ(loads, 50u);
}

// Each byte of each record, and the fields of the engine behind them.
TEST_F(Loader, SpeaksToEachVersionInItsOwnRecords) {
    const struct {
        const char* file;
        unsigned major, minor;
        bool known;
    } cases[] = {{FAKE_OPENH264, 1, 8, true},       {FAKE_OPENH264, 2, 5, true},
                 {FAKE_OPENH264_PSNR, 2, 6, true},  {FAKE_OPENH264, 1, 7, false},
                 {FAKE_OPENH264_PSNR, 2, 7, false}, {FAKE_OPENH264_PSNR, 3, 0, false}};
    for (const auto& [file, major, minor, known] : cases) {
        const std::string name = std::to_string(major) + "." + std::to_string(minor);
        SCOPED_TRACE(name);
        const LibraryOwner openH264(dlopen(file, RTLD_NOW));
        FakeOpenH264& fake = *reinterpret_cast<FakeOpenH264* (*)()>(dlsym(openH264.get(), "fakeOpenH264"))();
        fake = {{major, minor, 9}, {}, {}, {}, {}};
        const LibraryOwner owner(dlopen(NATIVE_LIBRARY, RTLD_NOW | RTLD_LOCAL));
        void* const natives = owner.get();
        std::string error, printed;
        error = printedBy(
            [&] {
                printed = printedBy([&] {
                    EXPECT_EQ(NATIVE(AVCEncoder_loadLibrary)(fakeJava(), nullptr, fakeString(file)), known);
                });
            },
            2);
        EXPECT_EQ(printed, known ? "loaded pointers\n" : "could not load pointers\n");
        EXPECT_EQ(fake.calls, "V");
        const std::string problem = "it is OpenH264 " + name + ".9; those that will do are 1.8 to 2.6";
        EXPECT_EQ(error, known ? "" : file + (" is refused: " + problem) + "\n");
        char text[128] = "";
        EXPECT_EQ(findOpenH264Problem(file, text, sizeof text), !known);
        EXPECT_EQ(text, known ? "" : problem);
        if (!known) continue;

        fake.calls.clear();
        FakeObject array{"[B", 1, Bytes(size_t{64} * 48 * 3 / 2)};
        Bytes output;
        printedBy([&] {
            const jlong handle = NATIVE(AVCEncoder_open)(nullptr, nullptr, 64, 48, 25, 50, 100'000);
            auto& encoder = *reinterpret_cast<NativeOpenH264Encoder*>(handle);
            EXPECT_EQ((std::tuple(encoder.status, encoder.width, encoder.height, encoder.fps, encoder.bitrate,
                                  encoder.maxBitrate)),
                      (std::tuple(0, 64u, 48u, 25u, 100'000, 300)));
            OpenH264Parameters expected{};
            std::memcpy(static_cast<void*>(&expected), fake.defaults.data(), fake.defaults.size());
            EXPECT_EQ((std::pair(encoder.minQp, encoder.maxQp)),
                      (std::pair(expected.iMinQp, expected.iMaxQp)));
            setAsConfigured(expected, encoder);
            EXPECT_EQ(std::memcmp(fake.parameters.data(), &expected, fake.parameters.size()), 0);

            NATIVE(AVCEncoder_encode)
            (fakeJava(), nullptr, reinterpret_cast<jbyteArray>(&array), nullptr, handle);
            output.assign(encoder.output.get(), encoder.output.get() + encoder.outputSize);
            NATIVE(AVCEncoder_close)(nullptr, nullptr, handle);
        });
        EXPECT_EQ(fake.calls, "CDIEX");
        Bytes layers(30, 2);
        std::fill_n(layers.begin(), 15, uint8_t{1});
        std::fill_n(layers.begin(), 5, uint8_t{0});
        EXPECT_EQ(output, layers);
        OpenH264Picture source{}, given{};
        std::memcpy(static_cast<void*>(&given), fake.picture.data(), fake.picture.size());
        source.iColorFormat = videoFormatI420;
        source.iPicWidth = source.iStride[0] = 64;
        source.iPicHeight = 48;
        source.iStride[1] = source.iStride[2] = 32;
        source.pData[0] = given.pData[0];
        source.pData[1] = given.pData[0] + 64 * 48;
        source.pData[2] = source.pData[1] + 32 * 24;
        EXPECT_EQ(std::memcmp(&given, &source, sizeof source), 0);
    }
}

// The native library's own counts of what lives decide what is unmapped when it goes itself.
TEST_F(Loader, GoesWithTheLibraryUnlessSomethingLives) {
    const std::string openH264 = elsewhere / "openh264.so", module = elsewhere / "module.so";
    fs::create_directories(elsewhere); // for files that nothing else has open
    fs::copy(home / COpenLoaderImpl::libraryPath, openH264);
    fs::copy(modulePath("every_other"), module);
    static jlong encoders[3], pipelines[3]; // in reach of LeakSanitizer
    for (const size_t live : {0, 1, 2}) {   // nothing, an encoder, a module's processor
        void* natives = dlopen(NATIVE_LIBRARY, RTLD_NOW | RTLD_LOCAL);
        ASSERT_TRUE(natives) << dlerror();
        jlong &encoder = encoders[live], &pipeline = pipelines[live];
        printedBy([&] {
            EXPECT_EQ(NATIVE(AVCEncoder_loadLibrary)(fakeJava(), nullptr, fakeString(openH264)), 1);
            const jint guid = NATIVE(AVCProcessor_loadLibrary)(fakeJava(), nullptr, fakeString(module));
            encoder = NATIVE(AVCEncoder_open)(nullptr, nullptr, 64, 48, 25, 50, 100'000);
            pipeline = NATIVE(AVCProcessor_open)(nullptr, nullptr, 25, 100'000, 1, 0, 0, 0);
            for (int i = 0; i < 2; ++i) // the second replaces the first
                NATIVE(AVCProcessor_brew)(nullptr, nullptr, guid, pipeline);
            if (live != 1) NATIVE(AVCEncoder_close)(nullptr, nullptr, encoder);
            if (live != 2) NATIVE(AVCProcessor_close)(nullptr, nullptr, pipeline);
            dlclose(natives);
        });
        EXPECT_EQ(std::pair(isMapped(openH264), isMapped(module)), std::pair(live >= 1, live == 2))
            << "what stayed, stays";
    }
}
