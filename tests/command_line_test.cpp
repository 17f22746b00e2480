#include "support/InstalledTool.h"

#include <csignal>

TEST_F(InstalledTool, MakesPlayableRenditionsInDisplayOrder) {
    kelvane("transcode in.h264 -r 320x180@900k,key=10 -r 160x90@300k,cabac -o 'out put'");
    EXPECT_EQ(output.find("MIRVProcessor"), std::string::npos) << "the library's diagnostics are mixed in:\n"
                                                               << output;
    // A picture compared with its neighbour instead of itself has far less than 30 dB.
    for (const char* size : {"320x180", "160x90"})
        EXPECT_GT(quality(size, "30 +0"), 30);
    EXPECT_EQ(names(path("out put")),
              (std::set<std::string>{"320x180", "320x180.mp4", "160x90", "160x90.mp4", "contact-sheet.png",
                                     "master.m3u8", "result.json", "index.html"}));
    EXPECT_EQ(contents(path("out put/contact-sheet.png")).substr(0, 4), "\x89PNG");
    for (const std::string size : {"320x180", "160x90"}) {
        SCOPED_TRACE(size);
        std::string shape = size + ",1.200000,30\n";
        shape[size.find('x')] = ',';
        EXPECT_EQ(probe("'out put/" + size + ".mp4'", "stream=width,height,duration,nb_read_frames"), shape);
    }
    EXPECT_EQ(probe("'out put/320x180.mp4'", "packet=pts_time,flags"), evenPackets(30, 25));
    for (const std::string threads : {"1", "5"}) {
        kelvane("transcode in.h264 -r 320x180@900k,key=10 -r 160x90@300k,cabac -o again --threads " +
                threads);
        for (const std::string file : {"/320x180.mp4", "/160x90.mp4"})
            EXPECT_EQ(contents(path("again" + file)), contents(path("out put" + file))) << threads;
    }
    expectFailure("transcode in.h264 --threads 0", 2, "--threads takes 1 to 64");
}

TEST_F(InstalledTool, KeepsTimesOfVariableFrameRateAndCutsToThePicture) {
    ffmpeg("-f lavfi -i testsrc2=size=320x180:rate=25 -frames:v 24 -vsync 0"
           " -vf 'setpts=N+floor(N*N/16)' -c:v libopenh264 -g 8 in.mp4");
    const std::string times = probe("in.mp4", "packet=pts_time");
    kelvane("transcode in.mp4 -r 160x90@200k -o whole");
    EXPECT_EQ(probe("whole/160x90.mp4", "packet=pts_time"), times);

    // From picture 10 (0.64 s), two behind a key frame, to 13 (0.92 s); the next is shown at 1.04 s.
    kelvane("transcode in.mp4 -r 160x90@200k -o part --start 00:0.6 --duration 0.4");
    EXPECT_GT(quality("160x90", "4"), 30) << "with the pictures behind the cut";
    EXPECT_EQ(probe("part/160x90.mp4", "packet=pts_time,flags"),
              "0.040000,K_\n0.120000,__\n0.240000,__\n0.320000,__\n");
    expectFailure("transcode in.mp4 -o new --start 1:60", 2, "expected seconds, mm:ss");
    // 60 pictures a second, with a gap: of each pair one, also behind the gap.
    ffmpeg("-f lavfi -i testsrc2=size=320x180:rate=60 -frames:v 60 -vsync 0"
           " -vf \"setpts='N+if(gte(N,30),5,0)'\" -c:v libopenh264 in.mp4");
    kelvane("transcode in.mp4 -r 160x90@200k,fps=30,key=10 -o halved");
    std::istringstream packets(probe("halved/160x90.mp4", "packet=pts_time,flags"));
    int count = 0;
    double before = -1 / 30.0;
    for (std::string packet; std::getline(packets, packet); ++count) {
        const double time = std::stod(packet);
        EXPECT_NEAR(time - before, count == 15 ? 7 / 60.0 : 2 / 60.0,
                    count == 15 || count == 16 ? 0.018 : 0.002)
            << packet;
        EXPECT_EQ(packet.find("K_") != std::string::npos, count % 10 == 0) << packet;
        before = time;
    }
    EXPECT_NEAR(count, 30, 1);
}

// 50 grey pictures, 3 of noise that OpenH264 fails at, and 50 grey ones, 40 ms apart.
TEST_F(InstalledTool, TellsOfPicturesThatAnEncoderFailedAt) {
    ASSERT_EQ(std::system(("java -cp '" + tree.string() +
                           "/lib/kelvane-media.jar:" TEST_JAR "' com.kelvane.media.test.Uncompressed '" +
                           path("noise.h264").string() + "'")
                              .c_str()),
              0);
    const std::string lacks = " lacks 3 pictures, the first at 2.00 s: ";
    EXPECT_EQ(run("kelvane", "transcode noise.h264 -r 64x48@100k -r 32x32@100k -o out"), 3) << errors;
    EXPECT_EQ(errors, "");
    EXPECT_GT(quality("32x32", "103 +0 +0"), 40);
    EXPECT_TRUE(std::regex_search(
        output, std::regex("\n64x48 +100 +0 +3 [^\n]*(\n[^6].*)*\n64x48" + lacks + "OpenH264 has no room")))
        << output;
    EXPECT_EQ(output.find("32x32 lacks"), std::string::npos) << output;
    EXPECT_NE(contents(path("out/result.json")).find("\"failed\":3,\"failure\":\"OpenH264 has no room"),
              std::string::npos);
    EXPECT_EQ(probe("out/64x48.mp4", "stream=nb_read_frames"), "100\n");
    EXPECT_NE(probe("out/64x48.mp4", "packet=pts_time,flags").find("\n1.960000,__\n2.120000,K_\n"),
              std::string::npos)
        << output;

    kelvane("live noise.h264 -r 64x48@100k");
    EXPECT_NE(output.find("\n64x48" + lacks), std::string::npos) << output;
    kelvane("process noise.h264 --module '" + (tree / "modules/mosaic.so").string() + "'");
    EXPECT_NE(output.find("kept                    100\n"), std::string::npos) << output;
    EXPECT_NE(output.find("\nthe result" + lacks), std::string::npos) << output;
}

TEST_F(InstalledTool, CarriesSoundInStepWithThePictures) {
    // A flash and a click each second, from the first on.
    makeFlashesAndClicks("160x90", "-t 4 -g 40 plain.mp4");
    for (const std::string made :
         {"-ss 1.2 -i plain.mp4 -c copy edit.mp4", "-i plain.mp4 -c copy stream.ts",
          "-i plain.mp4 -itsoffset 0.3 -i plain.mp4 -map 0:v -map 1:a -c copy later.mkv",
          "-i plain.mp4 -c:v copy -c:a pcm_s16le -ar 37800 pcm.mkv",
          "-i plain.mp4 -i plain.mp4 -map 0:v -map 0:a -map 1:a -c copy -disposition:a:0 0 -disposition:a:1 "
          "default two.mp4"})
        ffmpeg(made);
    const struct {
        const char *arguments, *sound;
        size_t flashes;
        double shift; // of the clicks, in seconds
    } cases[] = {{"plain.mp4", "track 1 of 1, AAC, copied", 4, 0},
                 {"plain.mp4 --start 1.2 --duration 0:2", "copied", 2, 0},
                 {"edit.mp4", "copied", 3, 0},
                 {"stream.ts", "track 1 of 1", 4, 0},
                 {"later.mkv", "copied", 4, 0.3},
                 {"pcm.mkv", "pcm_s16le, encoded as AAC", 4, 0},
                 {"pcm.mkv --start 0.7", "encoded", 3, 0},
                 {"two.mp4", "track 2 of 2", 4, 0},
                 {"two.mp4 --audio 1", "track 1 of 2", 4, 0}};
    for (const auto& [arguments, sound, flashCount, shift] : cases) {
        SCOPED_TRACE(arguments);
        kelvane(std::string("transcode --no-compare -r 80x46@200k -o out ") + arguments);
        EXPECT_TRUE(std::regex_search(output, std::regex("sound: [^\n]*" + std::string(sound)))) << output;
        const auto [flashes, clicks] = flashesAndClicks("out/80x46.mp4", 25, "async=1");
        const std::string first = probe("-select_streams v out/80x46.mp4", "stream=start_time");
        EXPECT_EQ(flashes.size(), flashCount);
        ASSERT_EQ(clicks.size(), flashes.size());
        for (size_t i = 0; i < clicks.size(); ++i)
            EXPECT_NEAR(clicks[i], flashes[i] + std::stod(first) + shift, 0.02) << i;
    }
    kelvane("transcode two.mp4 --audio none -r 80x46@200k -o out");
    EXPECT_EQ(probe("out/80x46.mp4", "stream=codec_name"), "h264\n");
    expectFailure("transcode two.mp4 --audio 3 -o new", 1, "has 2 sound tracks");
}

TEST_F(InstalledTool, CutsAllRenditionsAtTheSameTimes) {
    // A change of scene at 3.3 s, where OpenH264 begins anew, and rates that fit neither one another nor the
    // segments.
    ffmpeg("-f lavfi -i testsrc2=size=320x180:rate=60000/1001 -f lavfi -i sine=frequency=440"
           " -t 7 -vf \"hue=h='if(gt(t,3.3),180,0)',drawbox=t=fill:color=white:enable='gt(t,3.3)'\""
           " -c:v libopenh264 -b:v 800k -c:a aac in.mp4");
    const std::string call =
        "transcode in.mp4 -o out --segment 2 -r 320x180@500k,key=50 -r 160x90@200k,fps=25,cabac"
        " -r 96x54@100k,fps=10 ";
    for (const std::string options : {"", "--no-mp4 --no-compare"}) { // over what is there
        kelvane(call + options);
        EXPECT_EQ(output.find("is not cut"), std::string::npos) << output;
    }
    EXPECT_NE(output.find("320x180: key=50 does not fit into segments of 2 s, 120 pictures"),
              std::string::npos)
        << output;
    EXPECT_FALSE(fs::exists(path("out/160x90.h264")));

    const std::string master = contents(path("out/master.m3u8"));
    std::vector<double> cuts;
    for (const auto& [rendition, rate] : std::vector<std::pair<std::string, std::string>>{
             {"320x180", "59.940"}, {"160x90", "25.000"}, {"96x54", "10.000"}, {"sound", ""}}) {
        SCOPED_TRACE(rendition);
        std::vector<double> begins;
        double peak = 0;
        for (int i = 0; fs::exists(path("out/" + rendition + "/" + std::to_string(i) + ".m4s")); ++i) {
            const std::string segment = contents(path("out/" + rendition + "/" + std::to_string(i) + ".m4s"));
            std::ofstream(path("segment.mp4"), std::ios::binary)
                << contents(path("out/" + rendition + "/init.mp4")) << segment;
            const std::string first = probe("-read_intervals %+#1 segment.mp4", "packet=pts_time,flags");
            EXPECT_NE(first.find(",K"), std::string::npos) << first;
            begins.push_back(std::stod(first));
            if (i > 0) peak = std::max(peak, 8 * static_cast<double>(segment.size()) / 2.05);
        }
        ASSERT_EQ(begins.size(), 4u);
        if (cuts.empty()) cuts = begins;
        for (size_t i = 0; i < cuts.size(); ++i) {
            EXPECT_NEAR(begins[i], cuts[i], rendition == "sound" ? 0.15 : 0.0011) << i;
            EXPECT_NEAR(begins[i], 2 * static_cast<double>(i), 0.15) << i;
        }
        EXPECT_NEAR(duration(path("out/" + rendition + "/media.m3u8")), 7, 0.12);
        const std::string stream =
            probe("out/" + rendition + "/media.m3u8", "stream=width,profile,level -of default=nw=1");
        if (rendition == "sound") continue;
        std::smatch variant;
        const std::regex line(
            "BANDWIDTH=([0-9]+),AVERAGE-BANDWIDTH=([0-9]+),CODECS=\"avc1.([0-9a-f]{6}),mp4a.40.2\","
            "RESOLUTION=" +
            rendition + ",FRAME-RATE=" + rate + ",AUDIO=\"sound\"\n" + rendition + "/media.m3u8\n");
        ASSERT_TRUE(std::regex_search(master, variant, line)) << master;
        EXPECT_GE(std::stod(variant[1]), peak);
        EXPECT_GE(std::stod(variant[1]), std::stod(variant[2]));
        const std::string profile = variant[3].str().substr(0, 2), level = variant[3].str().substr(4);
        EXPECT_NE(stream.find((profile == "42" ? "profile=Constrained Baseline\n" : "profile=High\n") +
                              std::string("width=") + rendition.substr(0, rendition.find('x')) +
                              "\nlevel=" + std::to_string(std::stoi(level, nullptr, 16)) + "\n"),
                  std::string::npos)
            << profile << level << stream;
    }
    expectFailure("transcode out/320x180/media.m3u8 -r 320x180@500k -o out", 2, "would be overwritten");
}

TEST_F(InstalledTool, LaddersTellWhatPlayersGoBy) { // their boxes are looked at in the end
    ffmpeg(
        "-f lavfi -i testsrc2=size=320x180:rate=25 -f lavfi -i sine=r=48000 -t 5 -c:v libopenh264 -b:v 300k"
        " -c:a aac -ac 6 plain.mp4");
    ffmpeg("-i plain.mp4 -map 0:a -c copy -t 1 sound.mp4");
    ffmpeg("-i plain.mp4 -itsoffset 1.107 -i sound.mp4 -map 0:v -map 1:a -c copy amid.mkv");
    ffmpeg("-itsoffset 4.3 -i plain.mp4 -i plain.mp4 -map 0:v -map 1:a -c copy behind.mkv");
    ffmpeg("-f lavfi -i testsrc2=size=360x288:rate=25 -t 3 -vf setsar=64/45 -c:v libopenh264 wide.mp4");
    ffmpeg("-f lavfi -i testsrc2=size=320x180:rate=30 -t 8 -vf \"select='lt(t,4)+not(mod(n,5))'\" -vsync vfr"
           " -c:v libopenh264 varying.mkv");
    const struct {
        const char *source, *line;
        double seconds; // of sound
    } cases[] = {{"plain.mp4", "CHANNELS=\"6\"", 5},
                 {"amid.mkv", "CHANNELS=\"6\"", 5},
                 {"behind.mkv", "FRAME-RATE=25.000", 9.3},
                 {"wide.mp4", "RESOLUTION=512x288", 0},
                 {"varying.mkv", "FRAME-RATE=30.000", 0}};
    for (const auto& [source, line, seconds] : cases) {
        SCOPED_TRACE(source);
        const std::string out = std::string("out-") + source;
        kelvane(std::string("transcode --no-compare --no-mp4 -r 360x288@200k --segment 2 -o ") + out + " " +
                source);
        EXPECT_NE(contents(path(out + "/master.m3u8")).find(line), std::string::npos);
        if (seconds == 0) continue;
        ffmpeg("-i " + out + "/sound/media.m3u8 -f null -"); // silence decodes as well
        EXPECT_EQ(errors, "");
        EXPECT_NEAR(duration(path(out + "/sound/media.m3u8")), seconds, 0.03);
    }
}

TEST_F(InstalledTool, KeepsTheMeaningOfPictures) {
    ladderOptions = "turned=90";
    ffmpeg("-i " TEST_DATA "/baseline.h264 -c copy -bsf:v h264_metadata="
           "sample_aspect_ratio=4/3:video_full_range_flag=1:colour_primaries=5:"
           "transfer_characteristics=6:matrix_coefficients=5 -metadata:s:v:0 rotate=270 "
           "-aspect 44:27 in.mp4");
    const std::string entries =
        "stream=sample_aspect_ratio,color_range,color_space,color_transfer,color_primaries"
        ":stream_tags=rotate -of default=nw=1";
    const std::string source = probe("in.mp4", entries);
    EXPECT_NE(source.find("rotate=90"), std::string::npos) << source;
    EXPECT_NE(source.find("color_range=pc"), std::string::npos) << source;
    kelvane("transcode in.mp4 -r 88x72@300k -r 90x90@200k --raw -o out");
    EXPECT_GT(quality("88x72", ""), 30) << "compared in the same range";
    EXPECT_EQ(probe("out/88x72.mp4", entries), source);
    EXPECT_EQ(probe("out/88x72.h264", entries) + "TAG:rotate=90\n", source);
    EXPECT_EQ(probe("out/90x90.mp4", "stream=sample_aspect_ratio"), "44:27\n\n");
    kelvane("process in.mp4 --module '" + (tree / "modules/grayscale.so").string() + "' -o out/gray");
    EXPECT_EQ(probe("out/gray.mp4", entries), source);
}

TEST_F(InstalledTool, KeepsWhatDecodesOfADamagedFile) {
    std::string stream = contents(path("in.h264"));
    std::ofstream(path("short.h264"), std::ios::binary) << stream.substr(0, stream.size() * 2 / 3);
    std::ofstream(path("holes.h264"), std::ios::binary)
        << stream.replace(stream.size() / 3, 2000, 2000, '\x55');
    for (const std::string file : {"short", "holes"}) {
        SCOPED_TRACE(file);
        kelvane("transcode " + file + ".h264 -r 160x90@300k -o " + file);
        std::smatch row;
        ASSERT_TRUE(std::regex_search(output, row, std::regex("\n160x90 +(1[1-9]|2[0-9]) .* dB "))) << output;
        EXPECT_NE(output.find("\ndamaged source: "), std::string::npos) << output;
        // Pictures behind lost ones must keep their own times, by which they are compared. (Those between the
        // damage and the next key picture are what FFmpeg makes of them, here and in the comparison, in ways
        // of their own.)
        const std::string result = contents(path(file + "/result.json"));
        const std::regex good(R"("psnrYOfPictures":\[[^\]]*(,(3[5-9]|[4-9][0-9])\.[0-9]+){5}\])");
        EXPECT_TRUE(std::regex_search(result, good)) << result;
        EXPECT_EQ(probe(file + "/160x90.mp4", "stream=nb_read_frames"), row[1].str() + "\n");
    }
}

TEST_F(InstalledTool, PrintsLinesOfJsonForPrograms) {
    const struct {
        const char *arguments, *message, *result;
    } cases[] = {
        {"transcode in.h264 -r 160x90@100k --no-compare -o out", "in.h264: 320x180",
         R"x("seconds":1\.2.*"pictures":30,.*"renditions":\[\{"width":160,.*"files":\[.*"master.m3u8"\])x"},
        {"live - -r 160x90@100k < in.h264", "standard input: 320x180",
         R"x("state":"ended",.*"pictures":30,.*"renditions":\[\{"size":"160x90",.*"bytes":[1-9])x"}};
    for (const auto& [arguments, message, result] : cases) {
        ASSERT_EQ(run("kelvane", std::string(arguments) + " --json"), 0) << errors;
        const std::regex lines(R"x((\{"event":"(message|stage|progress|live)",.*\}\n)*)x"
                               R"x(\{"event":"message",.*)x" +
                               std::string(message) +
                               R"x(.*\}\n)x"
                               R"x((\{"event":"(message|stage|progress|live)",.*\}\n)*)x"
                               R"x(\{"event":"result",.*)x" +
                               result + R"x(.*\}\n)x");
        EXPECT_TRUE(std::regex_match(output, lines)) << output;
    }
}

TEST_F(InstalledTool, FailsInOneLineAndLeavesNothing) {
    std::ofstream(path("text")) << "no media";
    ffmpeg("-f lavfi -i testsrc2 -frames:v 3 -c:v png other.mov");
    expectFailure("", 2, "subcommand");
    expectFailure("transcode in.h264 --bogus", 2, "--bogus");
    expectFailure("transcode in.h264 -o out -r 641x360@800k", 2, "641x360@800k: width is 641.*even");
    expectFailure("transcode in.h264 -o out -r 640x360@800k -r 640x360@1M", 2, "two renditions");
    expectFailure("transcode in.h264 -o out --segment 61", 2, "from 1 to 60");
    expectFailure("transcode in.h264 -o out --no-hls --no-mp4", 2, "nothing to make");
    fs::create_directory(path("sound"));
    std::ofstream(path("sound/song.mp3")) << "mine";
    expectFailure("transcode in.h264 -o .", 1, "sound holds something else");
    EXPECT_EQ(contents(path("sound/song.mp3")), "mine");
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
    for (const std::string call : {"transcode in.h264 -r 160x90@100k --raw -o link",
                                   "transcode link/160x90.h264 -r 160x90@100k --raw -o er/..",
                                   "transcode er/../160x90.h264 -r 160x90@100k --raw -o deep",
                                   "process in.h264 -o link/160x90 --module x"})
        expectFailure(call, 2, "would be overwritten");
    EXPECT_EQ(contents(path("deep/160x90.h264")), stream);
    kelvane("transcode in.h264 -r 160x90@100k -o er");
    EXPECT_TRUE(fs::exists(path("deep/er/160x90.mp4")));
}

TEST_F(InstalledTool, RunsFromACopyWithTheOpenH264ThatIsThere) {
    const fs::path copy = path("copy of the tree");
    fs::copy(tree, copy, fs::copy_options::recursive | fs::copy_options::copy_symlinks);
    tree = copy;
    const std::string arguments = "transcode in.h264 -r 160x90@100k -o out";
    const fs::path openH264 = tree / "lib/amd64-Linux-gpp/jni/libopenh264-1.8.0-linux64.4.so";
    fs::remove(openH264);
    kelvane(arguments);
    fs::copy(openH264.parent_path() / "libavutil.so.56", openH264); // a library, but another
    kelvane(arguments);
    EXPECT_EQ(run("ffprobe", "-v error out/160x90.mp4"), 0) << errors;
}

TEST_F(InstalledTool, ProcessesPicturesAtTheirOwnTimes) {
    const std::string modules = TEST_TREE "/modules/";
    kelvane("process in.h264 --module " + modules +
            "every_other.so --set delay=10 --rate 5 -o 'sub dir/out'");
    const std::string summary = output;
    EXPECT_TRUE(std::regex_search(summary,
                                  std::regex("\npictures in +30\nkept +15\ndropped by the module +15\n"
                                             "encoded bytes +" +
                                             std::to_string(fs::file_size(path("sub dir/out.h264"))) +
                                             " [^\n]*\n(.*\n)*through the pipeline +[0-9.]+ ms a picture\n")))
        << summary;
    EXPECT_EQ(names(path("sub dir")), (std::set<std::string>{"out.h264", "out.mp4", "out.png"}));
    // Every other picture of a stream that reorders, 20 ms further from one another, and a key frame
    // every 10.
    EXPECT_EQ(probe("'sub dir/out.mp4'", "packet=pts_time,flags"), evenPackets(15, 10));

    kelvane("process in.h264 --pass-through --module " + modules + "every_other.so -o source");
    EXPECT_NE(output.find("access units in         30\nkept                    30\n"), std::string::npos)
        << output;
    EXPECT_EQ(probe("source.mp4", "stream=nb_read_frames"), "30\n");
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

TEST_F(InstalledTool, TellsOfACrashInsideAModule) {
    EXPECT_EQ(run("kelvane", "process in.h264 --module " TEST_TREE "/modules/faulty_null_in_open.so -o out"),
              128 + SIGABRT);
    const std::regex report("crashed while the module \\S+/faulty_null_in_open.so was at work, in "
                            "\\[faulty_null_in_open.so.*Faulty::Open.*\nthe report is (.*);");
    std::smatch file;
    ASSERT_TRUE(std::regex_search(errors, file, report)) << errors;
    EXPECT_TRUE(fs::exists(file[1].str()) && fs::path(file[1].str()).parent_path() == directory) << file[1];
    EXPECT_NE(output.find("last words\n"), std::string::npos) << output;
}

TEST_F(InstalledTool, LeavesNothingWhenInterruptedOrKilled) {
    const auto folder = [&] {
        std::error_code ignored;
        for (const auto& entry : fs::directory_iterator(path("out"), ignored))
            if (fs::exists(entry.path() / "4096x2304")) return entry.path();
        return fs::path();
    };
    const auto startAndWait = [&] { // the demonstration clip: for half a minute
        const pid_t child = start("kelvane", "transcode -r 4096x2304@20M -o out");
        EXPECT_TRUE(within(30, [&] { return !folder().empty(); }));
        return child;
    };
    for (const int signal : {SIGINT, SIGTERM}) {
        const pid_t child = startAndWait();
        kill(child, signal);
        EXPECT_EQ(finish(child), 128 + signal) << errors;
        EXPECT_EQ(errors, "interrupted; nothing was kept\n");
        EXPECT_FALSE(fs::exists(path("out")));
    }

    const pid_t child = startAndWait();
    const fs::path abandoned = folder();
    kill(child, SIGKILL);
    EXPECT_EQ(finish(child), 128 + SIGKILL);
    EXPECT_TRUE(fs::exists(abandoned));
    // The programs that it had started hold none of its files any more.
    const std::string holders = "for f in /proc/[0-9]*/cwd; do readlink $f; done 2>/dev/null | grep -cF " +
                                abandoned.filename().string() + " >/dev/null";
    EXPECT_TRUE(within(2, [&] { return std::system(holders.c_str()) != 0; }));
    kelvane("transcode in.h264 -r 160x90@100k --no-compare --no-hls -o out");
    EXPECT_EQ(names(path("out")), (std::set<std::string>{"160x90.mp4", "result.json", "index.html"}));
    EXPECT_EQ(run("kelvane", "transcode in.h264 -r 160x90@100k -o out", "/dev/full"), 1);
    EXPECT_EQ(errors, "kelvane: standard output cannot be written to\n");
}
