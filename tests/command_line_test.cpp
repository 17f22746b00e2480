#include "support/InstalledTool.h"

#include <chrono>
#include <csignal>
#include <thread>

TEST_F(InstalledTool, MakesPlayableRenditionsInDisplayOrder) {
    ASSERT_EQ(run("kelvane", "transcode in.h264 -r 320x180@900k,key=10 -r 160x90@300k,cabac -o 'out put'"), 0)
        << errors;
    const std::string summary = output;
    EXPECT_EQ(errors, "");
    EXPECT_EQ(summary.find("MIRVProcessor"), std::string::npos) << "the library's diagnostics are mixed in:\n"
                                                                << summary;
    EXPECT_EQ(names(path("out put")), (std::set<std::string>{"320x180.h264", "320x180.mp4", "160x90.h264",
                                                             "160x90.mp4", "contact-sheet.png"}));
    EXPECT_EQ(contents(path("out put/contact-sheet.png")).substr(0, 4), "\x89PNG");
    for (const std::string size : {"320x180", "160x90"}) {
        SCOPED_TRACE(size);
        std::string shape = size + ",1.200000,30\n";
        shape[size.find('x')] = ',';
        EXPECT_EQ(probe("'out put/" + size + ".mp4'", "stream=width,height,duration,nb_read_frames"), shape);
        // A picture compared with its neighbour instead of itself has far less than 30 dB.
        std::smatch row;
        ASSERT_TRUE(std::regex_search(summary, row, std::regex("\n" + size + " +30 +0 .* ([0-9.]+) dB ")))
            << summary;
        EXPECT_GT(std::stod(row[1]), 30);
    }
    std::string packets;
    for (int i = 0; i < 30; ++i) {
        char line[32];
        snprintf(line, sizeof line, "%.6f,%s\n", i * 0.04, i % 10 == 0 ? "K_" : "__");
        packets += line;
    }
    EXPECT_EQ(probe("'out put/320x180.mp4'", "packet=pts_time,flags"), packets);
}

TEST_F(InstalledTool, KeepsTimesOfVariableFrameRateAndCutsAtKeyFrames) {
    ASSERT_EQ(run("ffmpeg", "-v error -f lavfi -i testsrc2=size=320x180:rate=25 -frames:v 24 -vsync 0"
                            " -vf 'setpts=N+floor(N*N/16)' -c:v libopenh264 -g 8 in.mp4"),
              0)
        << errors;
    const std::string times = probe("in.mp4", "packet=pts_time");
    ASSERT_EQ(run("kelvane", "transcode in.mp4 -r 160x90@200k -o whole"), 0) << errors;
    EXPECT_EQ(probe("whole/160x90.mp4", "packet=pts_time"), times);

    // From picture 8 (0.48 s, a key frame) to 13 (0.92 s); the next is shown at 1.04 s.
    ASSERT_EQ(run("kelvane", "transcode in.mp4 -r 160x90@200k -o part --start 0.6 --duration 0.4"), 0)
        << errors;
    EXPECT_EQ(probe("part/160x90.mp4", "packet=pts_time"),
              "0.000000\n0.080000\n0.160000\n0.240000\n0.360000\n0.440000\n");
}

TEST_F(InstalledTool, KeepsWhatDecodesOfADamagedFile) {
    std::string stream = contents(path("in.h264"));
    std::ofstream(path("short.h264"), std::ios::binary) << stream.substr(0, stream.size() * 2 / 3);
    std::ofstream(path("holes.h264"), std::ios::binary)
        << stream.replace(stream.size() / 3, 2000, 2000, '\x55');
    for (const std::string file : {"short", "holes"}) {
        SCOPED_TRACE(file);
        ASSERT_EQ(run("kelvane", "transcode " + file + ".h264 -r 160x90@300k -o " + file), 0) << errors;
        EXPECT_NE(output.find("\ndamaged source: "), std::string::npos) << output;
        // Pictures behind a lost one must keep their own times, by which they are compared.
        std::smatch row;
        ASSERT_TRUE(std::regex_search(output, row, std::regex("\n160x90 +([0-9]+) .* ([0-9.]+) dB ")))
            << output;
        EXPECT_GT(std::stod(row[2]), 30) << output;
        EXPECT_EQ(probe(file + "/160x90.mp4", "stream=nb_read_frames"), row[1].str() + "\n");
        EXPECT_GT(std::stoi(row[1]), 10);
        EXPECT_LT(std::stoi(row[1]), 30);
    }
}

TEST_F(InstalledTool, FailsInOneLineAndLeavesNothing) {
    std::ofstream(path("text")) << "no media";
    ASSERT_EQ(run("ffmpeg", "-v error -f lavfi -i testsrc2 -frames:v 3 -c:v png other.mov"), 0) << errors;
    expectFailure("", 2, "subcommand");
    expectFailure("transcode in.h264 --bogus", 2, "--bogus");
    for (const auto& [rendition, reason] :
         std::vector<std::pair<std::string, std::string>>{{"641x360@800k", "even"},
                                                          {"8x8@800k", "from 16 to 8192"},
                                                          {"4096x2306@800k", "allowed are as many"},
                                                          {"640x360@0", "bit rate"},
                                                          {"640x360", "BITRATE"},
                                                          {"640x360@800k,fps=61", "frameRate is 61"},
                                                          {"640x360@800k,key=481", "keyInterval is 481"},
                                                          {"640x360@800k,qp=40-20", "smallestQuantiser 40 is above"},
                                                          {"640x360@800k -r 640x360@1M", "two renditions"}})
        expectFailure("transcode in.h264 -o out -r " + rendition, 2, reason);
    expectFailure("transcode missing.mp4 -o out", 1, "no such file");
    expectFailure("transcode . -o out", 1, "directory");
    expectFailure("transcode text -o out", 1, "not a media file");
    expectFailure("transcode other.mov -o out", 1, "no H.264 video.*video png");
    expectFailure("transcode in.h264 -o text/out", 1, "cannot write");
    expectFailure("transcode " TEST_DATA "/yuv422.h264 -o out", 1, "yuv422p.*8-bit 4:2:0.*-pix_fmt yuv420p");
    expectFailure("transcode in.h264 -o new/out --start 5", 1, "ends after 1.2 seconds");
}

TEST_F(InstalledTool, NeverReplacesItsSource) {
    fs::create_directories(path("deep/er"));
    fs::rename(path("in.h264"), path("deep/160x90.h264"));
    fs::create_directory_symlink("deep", path("link"));
    fs::create_directory_symlink("deep/er", path("er"));
    fs::create_symlink("deep/160x90.h264", path("in.h264"));
    const std::string stream = contents(path("in.h264"));
    for (const std::string call :
         {"transcode in.h264 -r 160x90@100k -o link", "transcode link/160x90.h264 -r 160x90@100k -o er/..",
          "transcode er/../160x90.h264 -r 160x90@100k -o deep", "process in.h264 -o link/160x90 --module x"})
        expectFailure(call, 2, "would be overwritten");
    EXPECT_EQ(contents(path("deep/160x90.h264")), stream);
    EXPECT_EQ(run("kelvane", "transcode in.h264 -r 160x90@100k -o er"), 0) << errors;
    EXPECT_TRUE(fs::exists(path("deep/er/160x90.mp4")));
}

TEST_F(InstalledTool, RunsFromACopyWithTheOpenH264ThatIsThere) {
    const fs::path copy = path("copy of the tree");
    fs::copy(tree, copy, fs::copy_options::recursive | fs::copy_options::copy_symlinks);
    tree = copy;
    const std::string arguments = "transcode in.h264 -r 160x90@100k -o out";
    const fs::path openH264 = tree / "lib/amd64-Linux-gpp/jni/libopenh264-1.8.0-linux64.4.so";
    fs::remove(openH264);
    EXPECT_EQ(run("kelvane", arguments), 0) << errors;
    fs::copy(openH264.parent_path() / "libavutil.so.56", openH264); // a library, but another
    EXPECT_EQ(run("kelvane", arguments), 0) << errors;
    EXPECT_EQ(run("ffprobe", "-v error out/160x90.mp4"), 0) << errors;
}

TEST_F(InstalledTool, ProcessesPicturesAtTheirOwnTimes) {
    const std::string modules = TEST_TREE "/modules/";
    ASSERT_EQ(run("kelvane", "process in.h264 --module " + modules +
                                 "every_other.so --set delay=10 --rate 5 -o 'sub dir/out'"),
              0)
        << errors;
    EXPECT_EQ(errors, "");
    const std::string summary = output;
    EXPECT_TRUE(
        std::regex_search(summary, std::regex("\npictures in +30\nkept +15\ndropped by the module +15\n"
                                              "encoded bytes +" +
                                              std::to_string(fs::file_size(path("sub dir/out.h264"))) + " ")))
        << summary;
    EXPECT_TRUE(std::regex_search(summary, std::regex("\nthrough the pipeline +[0-9.]+ ms a picture\n")))
        << summary;
    EXPECT_EQ(names(path("sub dir")), (std::set<std::string>{"out.h264", "out.mp4", "out.png"}));
    // Every other picture of a stream that reorders, 20 ms further from one another, and a key frame
    // every 10.
    std::string packets;
    for (int i = 0; i < 15; ++i) {
        char line[32];
        snprintf(line, sizeof line, "%.6f,%s\n", i * 0.1, i % 10 == 0 ? "K_" : "__");
        packets += line;
    }
    EXPECT_EQ(probe("'sub dir/out.mp4'", "packet=pts_time,flags"), packets);

    ASSERT_EQ(
        run("kelvane", "process in.h264 --pass-through --module " + modules + "every_other.so -o source"), 0)
        << errors;
    EXPECT_NE(output.find("access units in         30\nkept                    30\n"), std::string::npos)
        << output;
    const auto pictures = [&](const std::string& file) {
        EXPECT_EQ(run("ffmpeg", "-v error -y -i " + file + " -f framecrc sums"), 0) << errors;
        std::multiset<std::string> sums;
        std::ifstream lines(path("sums"));
        for (std::string line; std::getline(lines, line);)
            if (line[0] != '#') sums.insert(line.substr(line.rfind(' ')));
        return sums;
    };
    EXPECT_EQ(pictures("source.mp4").size(), 30u);
    EXPECT_EQ(pictures("source.mp4"), pictures("in.h264"));
}

TEST_F(InstalledTool, SaysWhatIsWrongWithAModule) {
    const std::string modules = TEST_TREE "/modules/", mosaic = (tree / "modules/mosaic.so").string();
    const struct {
        std::string arguments;
        int exitCode;
        const char* reason;
    } cases[] = {
        {"--module none.so", 1, "none.so: no such file"},
        {"--module in.h264", 1, "in.h264 is no processing module: invalid ELF header"},
        {"--module " + modules + "no_get_guid.so", 1, "does not export GetGuid"},
        {"--module " + modules + "no_create.so", 1, "does not export CreateVideoProcessor"},
        {"--module " + modules + "no_destroy.so", 1, "does not export DestroyVideoProcessor"},
        {"--module " + modules + "faulty_undefined.so", 1, "undefined symbol: nowhereDefined"},
        {"--module " + modules + "faulty_new_interface.so", 1, "could not be loaded.*kelvane-module-check"},
        {"--module " + modules + "faulty_no_object.so", 1, "faulty_no_object.so made no object"},
        {"--module " + mosaic + " --set block=16 --set region=1,2", 1, "refused the setting region=1,2"},
        {"--module " + mosaic + " --set region", 2, "expected KEY=VALUE"},
        {"--module " + mosaic + " -o in", 2, "would be overwritten"},
        {"", 2, "--module"}};
    for (const auto& [arguments, exitCode, reason] : cases)
        expectFailure("process in.h264 " + arguments, exitCode, reason);
}

TEST_F(InstalledTool, LeavesNothingWhenInterrupted) {
    const pid_t child =
        start("kelvane", "transcode -r 4096x2304@20M -o out"); // the demonstration clip: for half a minute
    const auto written = [&] {
        std::error_code ignored;
        for (const auto& folder : fs::directory_iterator(path("out"), ignored))
            if (fs::exists(folder.path() / "4096x2304.h264")) return true;
        return false;
    };
    for (int i = 0; i < 600 && !written(); ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    ASSERT_TRUE(written());
    kill(child, SIGINT);
    EXPECT_EQ(finish(child), 128 + SIGINT) << errors;
    EXPECT_EQ(errors, "interrupted; nothing was kept\n");
    EXPECT_FALSE(fs::exists(path("out")));
}
