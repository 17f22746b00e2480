#include "com_kelvane_media_transform_codec_AVCEncoder.h"
#include "com_kelvane_media_transform_codec_AVCProcessor.h"
#include "fuzz/FakeJava.h"
#include "support/Modules.h"
#include "support/OpenH264.h"
#include "support/Output.h"
#include "video/OpenH264Loader.h"

#include <unistd.h>

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
        const auto native = [&]<class Function>(const char* name, Function*) {
            return reinterpret_cast<Function*>(dlsym(natives, name));
        };
#define NATIVE(name)                                                                                         \
    native("Java_com_kelvane_media_transform_codec_" #name, &Java_com_kelvane_media_transform_codec_##name)
        const auto string = [](const std::string& text) {
            static FakeObject object;
            object.bytes.assign(text.c_str(), text.c_str() + text.size() + 1);
            return reinterpret_cast<jstring>(&object);
        };
        jlong &encoder = encoders[live], &pipeline = pipelines[live];
        printedBy([&] {
            EXPECT_EQ(NATIVE(AVCEncoder_loadLibrary)(fakeJava(), nullptr, string(openH264)), 1);
            const jint guid = NATIVE(AVCProcessor_loadLibrary)(fakeJava(), nullptr, string(module));
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
