#include "support/Modules.h"
#include "support/Output.h"

extern "C" {
#include <libavutil/crc.h>
}

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <sstream>

namespace {

CommandResult check(const std::string& arguments) { return run(MODULE_CHECK " " + arguments + " 2>&1"); }

} // namespace

TEST(EngineModuleCheck, TellsEachFaultInWords) {
    const struct {
        const char *module, *lines; // the first letter of each, # for a number
        const char *text, *options = "";
    } cases[] = {
        {"overrun", "moGoo.F  ",
         "Process, pictures of 640x360: writes outside of the picture: byte 1 behind its end"},
        {"far_overrun", "moGoo.F  ", "outside of the picture: byte 1 behind its end (it has 345600 bytes)"},
        {"overread", "moGoo.F  ", "reads outside of the picture: byte 1 behind its end"},
        {"underrun", "moGooF.F  ", "writes outside of the picture: byte 1 ahead of its start"},
        {"rgb", "moGoo.F  ", "writes outside of the picture: byte 1 behind its end"},
        {"late", "moGoooot.F  ", "pictures of 1x1: writes outside of the picture: byte"},
        {"keeps_picture", "moGoo.F  ", "writes byte 0 of the picture of an earlier call"},
        {"long_timestamp", "moGoo.F  ",
         "writes outside of the timestamp: byte 1 behind its end (it has 4 bytes)"},
        {"no_object", "moGoF##", "CreateVideoProcessor returned null"},
        {"no_guid", "moFGoootoooooo#", "GetGuid returned 0"},
        {"two_guids", "moGoFootoooooo#", "GetGuid of the object returned 1024024, the exported one 1024023"},
        {"one_object", "moGoF#", "the same object twice"},
        {"throws", "moGooFtnoo##", "Process throws: no table for this picture\n"},
        {"throws_in_apply", "moGooFtF###", "Apply of 'depth' = '' throws: stoi\n", "--set depth=1"},
        {"undefined", "mFn#", "undefined symbol: nowhereDefined"},
        {"null_in_open", "moGool.F  ", "Open, pictures of 640x360: writes through a null pointer"},
        {"divides", "moGoooot.F  ", "Process, pictures of 1x1: divides by zero"},
        {"deep", "moGoo.F  ", "pictures of 640x360: runs out of its stack, which has 1024 kB"},
        {"fixed_buffer", "moGooootooo.F ", "its stack is damaged", "--set depth=1"},
        {"writes_value", "moGoo.F  ", "writes byte 0 of the value of a setting, which is for reading",
         "--set depth=1"},
        {"refuses", "moGooFto##", "the setting 'depth' = '1' is refused: Apply returned 0", "--set depth=1"},
        {"not_destroyed", "moGooootoooooF#",
         "bytes behind when its object is destroyed by DestroyVideoProcessor"},
        {"frees", "moGof.F ", "DestroyVideoProcessor: is ended by abort()"},
        {"leaks_in_close", "moGooootoooooF#",
         "when its object is destroyed by DestroyVideoProcessor (without Close)"},
        {"grows", "moGooootoooooF#", "a stream holds about 1"},
        {"shared_state", "moGooootooooFo#", "two streams in turns disturb each other"},
        {"ends_process", "moGoo.F  ", "ends the process with exit()"},
        {"never_returns", "moGoo.F  ", "does not return within 1 seconds", "--timeout 1"},
        {"unset", "moGoo.F  ", "writes outside of the picture: byte 1 behind its end"},
        {"new_interface", "moF#", "it is built for interface 2"},
        {"no_entry_point", "moF#", "CreateVideoProcessor is not exported"},
        {"overreads_value", "moGoo.F  ", "reads outside of the value of a setting: byte 1 behind its end",
         "--set depth=1"},
        {"no_table", "moGoF#", "slot 1 of the object's table, the deleting destructor, is no function"},
    };
    for (const auto& [module, lines, text, options] : cases) {
        const CommandResult found =
            check(modulePath("faulty_" + std::string(module)) + " --frames 10 " + options);
        SCOPED_TRACE(module + ("\n" + found.output));
        EXPECT_EQ(found.exitCode, 1);
        EXPECT_NE(found.output.find(text), std::string::npos) << text;
        std::string letters;
        std::istringstream output(found.output);
        for (std::string line; std::getline(output, line);)
            if (!letters.ends_with('F') || line[0] != 'F') // how many at once is chance
                letters += line.empty() ? '.' : std::isdigit(line[0]) ? '#' : line[0];
        EXPECT_EQ(letters, lines);
        const bool told = found.output.find("Faulty::") != std::string::npos; // where it ended
        EXPECT_TRUE(told || !letters.ends_with("F  "));
    }
}

// All calls that come in the same order each time: none of those while two threads are at it.
TEST(EngineModuleCheck, LeadsThroughTheSameCalls) {
    const CommandResult found = check(modulePath("faulty_tells") + " --set depth=1");
    EXPECT_EQ(found.exitCode, 0);
    std::string calls;
    bool steady = true;
    std::istringstream output(found.output);
    for (std::string line; std::getline(output, line);) {
        steady |= line.starts_with("ok     two streams");
        if (steady && !line.starts_with("module ") && !line.starts_with("time ")) calls += line + "\n";
        steady &= !line.starts_with("ok     unknown settings");
    }
    const auto* bytes = reinterpret_cast<const uint8_t*>(calls.data());
    EXPECT_EQ(av_crc(av_crc_get_table(AV_CRC_32_IEEE), 0, bytes, calls.size()), 0x6ACFE632) << calls;
}

TEST(EngineModuleCheck, FindsNothingWrongWithGoodModules) {
    const std::string examples = EXAMPLE_MODULES "/";
    for (const std::string& module :
         {examples + "grayscale.so --set strength=20", examples + "solarize.so --set threshold=9",
          examples + "mosaic.so --set region=1,1,99,99 --set block=3 --set clear=",
          modulePath("mymodule") + " --set amount=9", modulePath("every_other") + " --set delay=1",
          modulePath("faulty_unset") + " --set depth=1"}) {
        for (const char* options : {" --frames 10", " --plain --picture 33x17"}) {
            const CommandResult found = check(module + options);
            EXPECT_EQ(found.exitCode, 0) << module << options << "\n" << found.output;
            EXPECT_NE(found.output.find("no fault found\n"), std::string::npos) << found.output;
        }
    }
}

TEST(EngineModuleCheck, ProcessesPictures) {
    namespace fs = std::filesystem;
    const fs::path folder = fs::temp_directory_path() / "kelvane_check";
    fs::create_directories(folder);
    const auto write = [&](const char* name, const std::string& bytes) {
        std::ofstream(folder / name, std::ios::binary) << bytes;
        return (folder / name).string();
    };
    const std::string in = "(<0d\xf0\xfa",
                      kept = "YUV4MPEG2 W2 H2 F30000:1001 Ip A1:1 C420mpeg2\nFRAME\n(<0d\x80\x80";
    const std::string y4m =
        write("in.y4m", "YUV4MPEG2 W2 H2 F30000:1001 C420jpeg XA\nFRAME\n" + in + "FRAME\n" + in);
    const std::string deep = write("deep.y4m", "YUV4MPEG2 W2 H2 F25:1 C420p10\nFRAME\n");
    const std::string raw = write("in.yuv", in + in + "x"), out = write("out.y4m", "");
    const std::string words = write("words.yuv", "a C9 W"); // no header, as it is raw
    const std::string grayscale = EXAMPLE_MODULES "/grayscale.so ";
    EXPECT_EQ(check(grayscale + y4m + " --frames 1 -o " + out).exitCode, 0);
    EXPECT_EQ(check(grayscale + words + " --picture 2x2").exitCode, 0);
    std::ifstream written(folder / "out.y4m", std::ios::binary);
    EXPECT_EQ(std::string(std::istreambuf_iterator<char>(written), {}), kept);
    const std::pair<std::string, const char*> failures[] = {
        {deep, "420p10, not 8-bit 4:2:0"},
        {raw, "a raw one needs --picture"},
        {raw + " --picture 2x2", "in the middle of a picture"},
        {folder / "none.y4m", "No such file"}};
    for (const auto& [arguments, reason] : failures) {
        const CommandResult failed = check(grayscale + arguments + " -o " + (folder / "no.y4m").string());
        EXPECT_EQ(failed.exitCode, 1) << failed.output;
        EXPECT_NE(failed.output.find(reason), std::string::npos) << failed.output;
    }
    for (const char* wrong :
         {"", "a b c", "a --set x", "a --picture 3x2 -o b", "a --frames x", "a --timeout ''", "a --nope"})
        EXPECT_EQ(check(wrong).exitCode, 2) << wrong;
    for (const char* wrong : {"22", "x2", "2x", "0x2", "2x0", "-2x2", "2x8193", "8193x2", "2x2x", "2yx2"}) {
        const CommandResult refused = check("a --picture " + std::string(wrong));
        EXPECT_EQ(refused.exitCode, 2) << wrong;
        EXPECT_NE(refused.output.find(": --picture takes "), std::string::npos) << refused.output;
    }
    EXPECT_EQ(check(modulePath("faulty_overrun") + " -o " + (folder / "crashed.y4m").string()).exitCode, 1);
    size_t files = 0;
    for ([[maybe_unused]] const auto& entry : fs::directory_iterator(folder))
        ++files;
    EXPECT_EQ(files, 5u) << "nothing half-written stays";
    fs::remove_all(folder);
}
