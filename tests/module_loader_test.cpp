#include "com_kelvane_media_transform_codec_AVCProcessor.h"
#include "processor/ModuleLoader.h"
#include "support/JavaMachine.h"
#include "support/Modules.h"
#include "support/Output.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>

#define AVCProcessor_problem Java_com_kelvane_media_transform_codec_AVCProcessor_problem
#define AVCProcessor_loadLibrary Java_com_kelvane_media_transform_codec_AVCProcessor_loadLibrary

namespace {

constexpr unsigned int recorderGuid = 305419896, topBitGuid = 4294967295;

unsigned int load(CLibLoader& loader, const std::string& path, const char* printed = "linked module \n") {
    int guid = 0;
    EXPECT_EQ(printedBy([&] { guid = loader.LoadLib(path.c_str()); }), printed) << path;
    return static_cast<unsigned int>(guid);
}

std::unique_ptr<CModuleProcessor> example(const char* path) {
    static CLibLoaderImpl loader;
    ProcessorFunctionPointers module;
    loader.GetLibFunctions(load(loader, path), &module);
    return std::unique_ptr<CModuleProcessor>(module.create_video_processor());
}

Bytes processed(CModuleProcessor& module, Bytes picture) {
    int timestamp = 0;
    EXPECT_NE(module.Process(picture.data(), static_cast<int>(picture.size()), &timestamp), 0);
    return picture;
}

} // namespace

TEST(EngineModuleLoader, FindsModulesByTheirGuid) {
    const std::tuple<const char*, unsigned int, const char*> cases[] = {
        {"missing", 0, "module not found \n"},
        {"no_get_guid", 0, "failed to linked get_guid \n"},
        {"no_destroy", 0, "failed to linked destroy_video_processor \n"},
        {"no_create", 2, "failed to linked create_video_processor \nlinked module \n"},
        {"recorder", recorderGuid, "linked module \n"},
        {"same_guid", recorderGuid, "linked module \n"},
        {"top_bit", topBitGuid, "linked module \n"}};
    CLibLoaderImpl loader;
    for (const auto& [module, guid, printed] : cases) {
        EXPECT_EQ(load(loader, modulePath(module), printed), guid);
        EXPECT_EQ(isMapped(modulePath(module)), guid != 0) << module;
    }
    ProcessorFunctionPointers found;
    EXPECT_EQ(loader.GetLibFunctions(recorderGuid, &found), 1);
    EXPECT_EQ(reinterpret_cast<void*>(found.create_video_processor),
              dlsym(loader.modules[1].libHandle.get(), "CreateVideoProcessor"));
    EXPECT_EQ(loader.GetLibFunctions(recorderGuid + 1, &found), 0);
    EXPECT_FALSE(found.get_guid || found.create_video_processor || found.destroy_video_processor);

    moduleRecordOf("recorder").throwIn = "exported GetGuid";
    EXPECT_EQ(load(loader, modulePath("recorder")), 0u);
    const auto findAnother = [&] { EXPECT_EQ(loader.GetLibFunctions(topBitGuid, &found), 1); };
    EXPECT_EQ(printedBy(findAnother, 2),
              "module " + modulePath("recorder") + " threw in GetGuid: not a std::exception\n");
    moduleRecordOf("recorder").throwIn = "";

    const std::string unknown = modulePath("faulty_new_interface");
    EXPECT_EQ(printedBy([&] { EXPECT_EQ(load(loader, unknown, ""), 0u); }, 2),
              "module " + unknown + " refused: built for interface 2, not 1\n");
    EXPECT_FALSE(isMapped(unknown));
}

TEST(EngineModuleLoader, FillsItsTableAndUnmapsItUnlessProcessorsLive) {
    const std::string path = modulePath("every_other");
    for (const bool live : {false, true}) {
        {
            CLibLoaderImpl loader;
            for (uint32_t i = 0; i < CLibLoaderImpl::capacity; ++i)
                ASSERT_EQ(load(loader, path), 0xe5e5e5e5u);
            EXPECT_EQ(load(loader, modulePath("recorder"), "module refused, 256 are loaded \n"), 0u);
            ProcessorFunctionPointers found;
            EXPECT_EQ(loader.GetLibFunctions(recorderGuid, &found), 0);
            loader.liveProcessors = live;
        }
        EXPECT_EQ(isMapped(path), live);
    }
}

// Java's own form of UTF-8 has such characters, and the end of a string, in other bytes than a file system.
TEST(ModulePath, MayHaveAnyCharacter) {
    namespace fs = std::filesystem;
    const fs::path folder = fs::temp_directory_path() / ("kelvane-path-" + std::to_string(getpid()));
    fs::create_directories(folder);
    for (const char32_t character : {U'é', U'鏡', U'\U00010000', U'\U0001F3AC', U'\U0010FFFF'}) {
        const LocalFrame references;
        const fs::path file = folder / std::u32string{U'm', character, U'.', U's', U'o'};
        fs::copy(modulePath("top_bit"), file);
        const std::u16string text = file.u16string();
        jstring path = javaEnv()->NewString(reinterpret_cast<const jchar*>(text.data()),
                                            static_cast<jsize>(text.size()));
        EXPECT_EQ(AVCProcessor_problem(javaEnv(), nullptr, path), nullptr) << file;
        jint guid = 0;
        EXPECT_EQ(printedBy([&] { guid = AVCProcessor_loadLibrary(javaEnv(), nullptr, path); }),
                  "loading " + file.string() + "\nlinked module \nfound -1\n");
        EXPECT_EQ(static_cast<unsigned int>(guid), topBitGuid);
    }
    fs::remove_all(folder);
}

TEST(EngineExampleModules, GrayscaleTakesColourByItsStrength) {
    const auto module = example(EXAMPLE_MODULES "/grayscale.so");
    const Bytes picture{10, 20, 30, 40, 228, 28}; // 2x2: luma, U, V
    EXPECT_EQ(processed(*module, picture), picture) << "no size announced: this may be an access unit";
    module->Reinit(2, 2);
    EXPECT_GT(module->Apply("strength", "50"), 0);
    for (const char* refused : {"101", "-1", "5x"})
        EXPECT_LE(module->Apply("strength", refused), 0) << refused;
    EXPECT_EQ(processed(*module, picture), (Bytes{10, 20, 30, 40, 178, 78}));
}

TEST(EngineExampleModules, MosaicChangesItsRegionsOnly) {
    const auto module = example(EXAMPLE_MODULES "/mosaic.so");
    EXPECT_GT(module->Apply("block", "4"), 0);
    EXPECT_LE(module->Apply("block", "1"), 0);
    EXPECT_GT(module->Apply("region", "1,1,6,3"), 0);
    for (const char* refused : {"1,2,3", "1,2,3,4,5", "1,2,0,4", "1,2,3,x", "1,2,3,99999999999"})
        EXPECT_LE(module->Apply("region", refused), 0) << refused;
    Bytes picture(48); // 8x4
    for (size_t i = 0; i < 48; ++i)
        picture[i] = static_cast<uint8_t>(i * 5);
    EXPECT_EQ(processed(*module, picture), picture) << "no size announced: this may be an access unit";
    module->Reinit(8, 4);
    EXPECT_EQ(processed(*module, picture),
              (Bytes{0,   5,   10,  15,  20,  25,  30,  35,  40,  92,  92,  92,  92,  107, 107, 75,
                     80,  92,  92,  92,  92,  107, 107, 115, 120, 92,  92,  92,  92,  107, 107, 155,
                     172, 172, 182, 182, 172, 172, 182, 182, 212, 212, 222, 222, 212, 212, 222, 222}));

    // Regions across and beyond every edge of an odd picture; copies of `flat` have no byte to spare.
    for (const char* region : {"-50,-50,60,60", "30,15,500,500", "-65535,0,65535,10", "60000,60000,9,9"})
        EXPECT_GT(module->Apply("region", region), 0);
    module->Reinit(33, 17);
    const Bytes flat(33 * 17 * 12 / 8, 77);
    EXPECT_EQ(processed(*module, flat), flat);
}

// What the guide for module authors promises: the installed examples, and the template with its test, build
// in a folder of their own.
TEST(InstalledModules, BuildAgainstTheInstalledTreeAlone) {
    const std::filesystem::path tree = std::getenv("KELVANE_DIST");
    const std::filesystem::path folder = std::filesystem::temp_directory_path() / "kelvane modules";
    std::filesystem::remove_all(folder);
    std::filesystem::copy(tree / "examples/modules", folder, std::filesystem::copy_options::recursive);
    const auto build = [&](const std::string& source, const std::string& more) {
        const CommandResult built = run("cd '" + (folder / source).string() +
                                        "' && cmake -B build '-DCMAKE_PREFIX_PATH=" + tree.string() +
                                        "' 2>&1 && cmake --build build 2>&1" + more);
        EXPECT_EQ(built.exitCode, 0) << built.output;
    };
    build(".", "");
    build("template", " && ctest --test-dir build --output-on-failure --no-tests=error 2>&1");
    CLibLoaderImpl loader;
    for (const char* module : {"build/mosaic.so", "build/solarize.so", "template/build/mymodule.so"})
        EXPECT_NE(load(loader, folder / module), 0u);
    std::filesystem::remove_all(folder);
}
