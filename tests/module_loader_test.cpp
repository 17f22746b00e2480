#include "processor/ModuleLoader.h"
#include "support/Media.h"
#include "support/Modules.h"
#include "support/Output.h"

#include <gtest/gtest.h>

#include <array>
#include <filesystem>

namespace {

constexpr unsigned int recorderGuid = 305419896;

int load(CLibLoaderImpl& loader, const std::string& path, std::string* printed = nullptr) {
    int guid = 0;
    const std::string text = printedBy([&] { guid = loader.LoadLib(path.c_str()); });
    if (printed) *printed = text;
    return guid;
}

CModuleProcessor* create(CLibLoaderImpl& loader, const std::string& path) {
    ProcessorFunctionPointers module;
    EXPECT_EQ(loader.GetLibFunctions(static_cast<unsigned int>(load(loader, path)), &module), 1) << path;
    return module.create_video_processor();
}

} // namespace

TEST(EngineModuleLoader, FindsModulesByTheirGuid) {
    CLibLoaderImpl loader;
    std::string printed;
    EXPECT_EQ(load(loader, "./no_such_module.so", &printed), 0);
    EXPECT_EQ(printed, "module not found \n");
    EXPECT_EQ(load(loader, TEST_DATA "/odd.h264"), 0);
    EXPECT_EQ(printedBy([&] { EXPECT_EQ(loader.LoadLib(nullptr), 0); }), "");
    EXPECT_EQ(loader.moduleCount, 0u);

    EXPECT_EQ(load(loader, modulePath("recorder"), &printed), static_cast<int>(recorderGuid));
    EXPECT_EQ(printed, "linked module \n");
    EXPECT_EQ(load(loader, modulePath("same_guid")), static_cast<int>(recorderGuid));
    EXPECT_EQ(load(loader, modulePath("top_bit")), -1);
    EXPECT_EQ(loader.moduleCount, 3u);

    ProcessorFunctionPointers found;
    EXPECT_EQ(loader.GetLibFunctions(recorderGuid, &found), 1);
    const auto exported = [&](const char* symbol) {
        return dlsym(loader.modules[0].libHandle.get(), symbol);
    };
    EXPECT_EQ(reinterpret_cast<void*>(found.get_guid), exported("GetGuid"));
    EXPECT_EQ(reinterpret_cast<void*>(found.create_video_processor), exported("CreateVideoProcessor"));
    EXPECT_EQ(reinterpret_cast<void*>(found.destroy_video_processor), exported("DestroyVideoProcessor"));
    EXPECT_EQ(loader.GetLibFunctions(4294967295u, &found), 1);
    EXPECT_EQ(found.get_guid(), 4294967295u);
    EXPECT_EQ(loader.GetLibFunctions(recorderGuid + 1, &found), 0);
    EXPECT_FALSE(found.get_guid || found.create_video_processor || found.destroy_video_processor);
}

TEST(EngineModuleLoader, RefusesModulesThatLackAnEntryPoint) {
    const struct {
        const char* module;
        int guid;
        const char* printed;
    } cases[] = {{"no_get_guid", 0, "failed to linked get_guid \n"},
                 {"no_destroy", 0, "failed to linked destroy_video_processor \n"},
                 {"no_create", 2, "failed to linked create_video_processor \nlinked module \n"}};
    for (const auto& [module, guid, expected] : cases) {
        SCOPED_TRACE(module);
        CLibLoaderImpl loader;
        std::string printed;
        EXPECT_EQ(load(loader, modulePath(module), &printed), guid);
        EXPECT_EQ(printed, expected);
        EXPECT_EQ(loader.moduleCount, guid ? 1u : 0u);
        EXPECT_EQ(isMapped(modulePath(module)), guid != 0);
    }
}

TEST(EngineModuleLoader, HoldsAsManyModulesAsItsTable) {
    CLibLoaderImpl loader;
    for (uint32_t i = 0; i < CLibLoaderImpl::capacity; ++i)
        ASSERT_EQ(load(loader, modulePath("no_create")), 2);
    std::string printed;
    EXPECT_EQ(load(loader, modulePath("same_guid"), &printed), 0);
    EXPECT_EQ(printed, "module refused, 256 are loaded \n");
    EXPECT_EQ(loader.moduleCount, 256u);
    ProcessorFunctionPointers found;
    EXPECT_EQ(loader.GetLibFunctions(2, &found), 1);
    EXPECT_EQ(loader.GetLibFunctions(recorderGuid, &found), 0);
}

TEST(EngineModuleLoader, UnmapsItsModulesUnlessProcessorsLive) {
    const std::string path = modulePath("no_create");
    for (const int live : {0, 1}) {
        {
            CLibLoaderImpl loader;
            EXPECT_EQ(load(loader, path), 2);
            loader.liveProcessors = live;
        }
        EXPECT_EQ(isMapped(path), live == 1);
    }
    dlclose(dlopen(path.c_str(), RTLD_LAZY | RTLD_NOLOAD));
    dlclose(dlopen(path.c_str(), RTLD_LAZY | RTLD_NOLOAD));
}

TEST(EngineModuleLoader, AThrowingGetGuidCountsAsZero) {
    CLibLoaderImpl loader;
    ModuleRecord& record = moduleRecordOf("recorder");
    record.throwIn = "exported GetGuid";
    ProcessorFunctionPointers found;
    const std::string errors = printedBy(
        [&] {
            EXPECT_EQ(load(loader, modulePath("recorder")), 0);
            EXPECT_EQ(load(loader, modulePath("top_bit")), -1);
            EXPECT_EQ(loader.GetLibFunctions(4294967295u, &found), 1);
        },
        2);
    record.throwIn = "";
    const std::string line = "module threw in GetGuid: exported GetGuid fails\n";
    EXPECT_EQ(errors, line + line);
}

TEST(EngineExampleModules, GrayscaleTakesColourByItsStrength) {
    CLibLoaderImpl loader;
    const std::unique_ptr<CModuleProcessor> module(create(loader, EXAMPLE_MODULES "/grayscale.so"));
    for (const char* refused : {"", "101", "-1", "5x", "99999999999999999999"})
        EXPECT_LE(module->Apply("strength", refused), 0) << refused;
    EXPECT_LE(module->Apply("colour", "5"), 0);
    const Bytes picture{10, 20, 30, 40, 228, 28}; // 2x2: luma, U, V
    int timestamp = 5;
    const auto processed = [&] {
        Bytes data = picture;
        EXPECT_NE(module->Process(data.data(), 6, &timestamp), 0);
        return data;
    };
    EXPECT_EQ(processed(), picture) << "no size announced: this may be an access unit";
    const std::pair<const char*, Bytes> strengths[] = {
        {"0", picture}, {"50", {10, 20, 30, 40, 178, 78}}, {"100", {10, 20, 30, 40, 128, 128}}};
    uint8_t configuration[4] = {};
    module->Open(2, 2, configuration, configuration + 1, configuration + 2, configuration + 3);
    for (const auto& [strength, expected] : strengths) {
        EXPECT_GT(module->Apply("strength", strength), 0);
        EXPECT_EQ(processed(), expected);
    }
    EXPECT_EQ(timestamp, 5);
}

TEST(EngineExampleModules, MosaicChangesItsRegionsOnly) {
    CLibLoaderImpl loader;
    const std::unique_ptr<CModuleProcessor> module(create(loader, EXAMPLE_MODULES "/mosaic.so"));
    constexpr int width = 175, height = 99, chroma = 87 * 49, size = width * height * 12 / 8;
    Bytes picture(size);
    for (size_t i = 0; i < picture.size(); ++i)
        picture[i] = static_cast<uint8_t>(i * 7919 >> 3);
    int timestamp = 0;
    const auto processed = [&] {
        Bytes data = picture;
        EXPECT_NE(module->Process(data.data(), size, &timestamp), 0);
        return data;
    };
    for (const char* refused : {"", "1,2,3", "1,2,3,4,5", "1,2,0,4", "1,2,3,x", "1,2,3,99999999999"})
        EXPECT_LE(module->Apply("region", refused), 0) << refused;
    EXPECT_LE(module->Apply("block", "1"), 0);
    EXPECT_GT(module->Apply("block", "8"), 0);
    EXPECT_GT(module->Apply("region", "20,10,40,30"), 0);
    EXPECT_TRUE(processed() == picture) << "no size announced: this may be an access unit";
    EXPECT_NE(module->Reinit(width, height), -1);

    const Bytes data = processed();
    for (int y = 0; y < height; ++y) {
        for (int x = 0; x < width; ++x) {
            const bool inside = x >= 20 && x < 60 && y >= 10 && y < 40;
            const int square = inside ? (y - (y - 10) % 8) * width + x - (x - 20) % 8 : y * width + x;
            const uint8_t expected =
                inside ? data[static_cast<size_t>(square)] : picture[static_cast<size_t>(square)];
            ASSERT_EQ(data[static_cast<size_t>(y * width + x)], expected) << x << "," << y;
        }
    }
    int mean = 0;
    for (int y = 10; y < 18; ++y)
        for (int x = 20; x < 28; ++x)
            mean += picture[static_cast<size_t>(y * width + x)];
    EXPECT_EQ(data[10 * width + 20], mean / 64);
    for (const int plane : {width * height, width * height + chroma}) {
        const auto at = [&](int x, int y) { return static_cast<size_t>(plane + y * 87 + x); };
        EXPECT_EQ(data[at(10, 5)], data[at(13, 8)]);
        EXPECT_EQ(data[at(29, 19)], data[at(26, 17)]);
        for (const auto& [x, y] : {std::array{9, 5}, {30, 5}, {10, 4}, {10, 20}})
            EXPECT_EQ(data[at(x, y)], picture[at(x, y)]);
    }

    // Regions across and beyond every edge of a picture that has shrunk in a buffer of just its size.
    for (const char* region : {"-50,-50,60,60", "170,90,500,500", "-65535,0,65535,10", "60000,60000,9,9"})
        EXPECT_GT(module->Apply("region", region), 0);
    module->Reinit(33, 17);
    Bytes small(33 * 17 * 12 / 8, 77);
    small.shrink_to_fit();
    module->Process(small.data(), static_cast<int>(small.size()), &timestamp);
    EXPECT_EQ(small, Bytes(small.size(), 77)) << "a flat picture stays flat";
    EXPECT_GT(module->Apply("clear", ""), 0);
    module->Reinit(width, height);
    EXPECT_TRUE(processed() == picture);
}

// What the guide for module authors promises: the installed examples build in a folder of their own.
TEST(InstalledModules, BuildAgainstTheInstalledHeaderAlone) {
    const std::filesystem::path tree = std::getenv("KELVANE_DIST");
    const std::filesystem::path folder = std::filesystem::temp_directory_path() / "kelvane modules";
    std::filesystem::remove_all(folder);
    std::filesystem::copy(tree / "examples/modules", folder);
    const std::string quoted = "'" + folder.string() + "'";
    const CommandResult built = run("cmake -S " + quoted + " -B " + quoted +
                                    "/build '-DKELVANE_INCLUDE=" + (tree / "include").string() +
                                    "' 2>&1 && cmake --build " + quoted + "/build 2>&1");
    ASSERT_EQ(built.exitCode, 0) << built.output;
    CLibLoaderImpl loader;
    for (const auto& module : {folder / "build/mosaic.so", tree / "modules/mosaic.so"})
        EXPECT_EQ(load(loader, module.string()), 0x6d6f7361) << module;
    std::filesystem::remove_all(folder);
}
