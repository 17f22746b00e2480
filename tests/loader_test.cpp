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
    place(PARTIAL_OPENH264);
    EXPECT_EQ(load(loader, 0), "could not load pointers\n");
    expectNothing();
    place(TEST_DATA "/baseline.h264"); // not a library
    EXPECT_EQ(load(loader, 0), "could not load pointers\n");

    place(home / COpenLoaderImpl::libraryPath);
    EXPECT_EQ(load(loader, 2), "loaded pointers\n");
    fs::remove_all(elsewhere);
    EXPECT_EQ(load(loader, 2), "pointers pre loaded\n");
    EXPECT_EQ(loader.GetLibFunctions(&functions), 2);
    ISVCEncoder* encoder = nullptr;
    ASSERT_EQ(functions.createEncoder(&encoder), 0);
    functions.destroyEncoder(encoder);
    EXPECT_EQ(library.destroyed, 1);
    EXPECT_GE(functions.getCodecVersion().uMajor, 1u);
}

TEST_F(Loader, LoadsFromElsewhere) {
    fs::create_directories(elsewhere);
    const fs::path file = home / COpenLoaderImpl::libraryPath;
    fs::current_path(elsewhere);
    COpenLoaderImpl loader;
    EXPECT_EQ(printedBy([&] {
                  EXPECT_EQ(loader.LoadLibFrom(PARTIAL_OPENH264), 0);
                  EXPECT_EQ(loader.LoadLibFrom(file.c_str()), 2);
                  EXPECT_EQ(loader.LoadLibFrom("no/such.so"), 2);
                  EXPECT_EQ(loader.LoadLib(), 2);
              }),
              "could not load pointers\nloaded pointers\npointers pre loaded\npointers pre loaded\n");
    EncoderLibFunctions functions;
    loader.GetLibFunctions(&functions);
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
