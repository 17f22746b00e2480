#include "support/InstalledTool.h"

#include <arpa/inet.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <csignal>

namespace {

// The server's answer, or nothing.
std::string request(int port, const std::string& line, const std::string& headers = "Host: localhost\r\n") {
    const int connection = socket(AF_INET, SOCK_STREAM, 0);
    const sockaddr_in address{AF_INET, htons(static_cast<uint16_t>(port)), {htonl(INADDR_LOOPBACK)}, {}};
    std::string answer;
    if (connect(connection, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0) {
        const std::string text = line + " HTTP/1.1\r\n" + headers + "Connection: close\r\n\r\n";
        EXPECT_EQ(write(connection, text.data(), text.size()), static_cast<ssize_t>(text.size()));
        char part[4096];
        for (ssize_t size; (size = read(connection, part, sizeof part)) > 0;)
            answer.append(part, static_cast<size_t>(size));
    }
    close(connection);
    return answer;
}

} // namespace

TEST_F(InstalledTool, GoesOnThroughWhatALiveSourceDoes) {
    ladderOptions = "holes";
    // 4 s each, with flashes and clicks: another size and a jump; back; a hole; the end of the 33 bits of
    // MPEG-TS.
    makeFlashesAndClicks("320x180", "-t 4 -g 25 -b:v 300k -f mpegts a.ts");
    makeFlashesAndClicks("640x360", "-t 4 -g 25 -b:v 300k -output_ts_offset 5000 -f mpegts b.ts");
    ffmpeg("-i a.ts -c copy -output_ts_offset 95439.6 wrap.ts");
    ffmpeg("-i b.ts -c copy next.flv");
    std::string holed = contents(path("a.ts"));
    std::ofstream(path("holed.ts"), std::ios::binary) << holed.replace(holed.size() / 2, 3000, 3000, '\x55');
    ASSERT_EQ(mkfifo(path("in").c_str(), 0600), 0);
    const auto feed = [&](const std::string& files) {
        return std::system(("cd '" + directory.string() + "' && cat " + files + " > in").c_str());
    };

    const pid_t child = start("kelvane", "live in -o out -r 320x180@300k -r 160x90@100k --window 0 --http 0");
    ASSERT_EQ(feed("a.ts b.ts a.ts holed.ts wrap.ts"), 0);
    const auto listed = [&](size_t count) {
        return entries(contents(path("out/320x180/media.m3u8")), "#EXTINF:").size() >= count;
    };
    EXPECT_TRUE(within(20, [&] { return listed(9); })) << contents(path(".output"));
    ASSERT_EQ(feed("next.flv"), 0); // another writer, another container
    EXPECT_TRUE(within(10, [&] { return listed(11); })) << contents(path(".output"));

    std::smatch page;
    const std::string said = contents(path(".output"));
    ASSERT_TRUE(std::regex_search(said, page, std::regex("http://127.0.0.1:([0-9]+)/\n"))) << said;
    const int port = std::stoi(page[1]);
    fs::create_symlink(path("in.h264"), path("out/320x180/99.m4s"));
    const std::string home = "Host: localhost\r\n", elsewhere = "Host: elsewhere.example\r\n";
    const std::string tag =
        entries(request(port, "HEAD /320x180/0.m4s"), "Etag: ").at(0); // with its carriage return
    for (const auto& [line, headers, expected] : std::vector<std::array<std::string, 3>>{
             {"GET /", home, "200[\\s\\S]*text/html"},
             {"GET /live.json", "Host: 127.0.0.1:80\r\n",
              "200(?![\\s\\S]*llow-origin)[\\s\\S]*application/json"},
             {"GET /live.json", elsewhere,
              "421(?![\\s\\S]*llow-origin)"}, // a page there must not read the figures
             {"GET /live.json", "", "421"},
             {"GET /", elsewhere, "421"},
             {"HEAD /master.m3u8", elsewhere, "200[\\s\\S]*application/vnd.apple.mpegurl"},
             {"GET /320x180/0.m4s", home, "200[\\s\\S]*video/mp4\r\nAccess-control-allow-origin: \\*\r\n"},
             {"GET /sound/media.m3u8", elsewhere, "200[\\s\\S]*\nAccess-control-allow-origin: \\*\r\n"},
             {"GET /320x180/0.m4s", home + "If-None-Match: " + tag + "\n", "304"},
             {"GET /../in.h264", home, "404"},
             {"GET /%2e%2e/in.h264", home, "404"},
             {"GET /320x180/..%2f..%2fin.h264", home, "404"},
             {"GET /320x180/99.m4s", home, "404"},
             {"GET /.kelvane-live", home, "404"},
             {"POST /", home, "405"}}) {
        const std::string answer = request(port, line, headers).substr(0, 500);
        const std::regex begin("HTTP/1.1 " + expected);
        EXPECT_TRUE(std::regex_search(answer, begin, std::regex_constants::match_continuous))
            << line << answer;
    }
    kill(child, SIGINT);
    EXPECT_TRUE(within(6, [&] { // players have yet to read the end
        return request(port, "GET /320x180/media.m3u8").find("#EXT-X-ENDLIST\n") != std::string::npos;
    }));
    kill(child, SIGINT); // at once
    EXPECT_EQ(finish(child), 0) << errors;
    EXPECT_EQ(errors, "");
    EXPECT_FALSE(fs::exists(path("out/.kelvane-live")));

    const std::string playlist = contents(path("out/320x180/media.m3u8"));
    EXPECT_EQ(entries(playlist, "#EXTINF:"), entries(contents(path("out/160x90/media.m3u8")), "#EXTINF:"));
    EXPECT_NE(playlist.find("#EXT-X-PLAYLIST-TYPE:VOD\n"), std::string::npos) << playlist;
    EXPECT_TRUE(playlist.ends_with("#EXT-X-ENDLIST\n")) << playlist;
    std::vector<double> shown;
    for (const std::string& time :
         entries(probe("-select_streams v out/320x180/media.m3u8", "packet=pts_time"), ""))
        if (!time.empty()) shown.push_back(std::stod(time));
    ASSERT_GT(shown.size(), 550u) << "of 600, without those that were lost in the hole";
    int gaps = 0;
    for (size_t i = 1; i < shown.size(); ++i) {
        ASSERT_GT(shown[i], shown[i - 1]);
        ASSERT_LT(shown[i] - shown[i - 1], 1.5);
        gaps += shown[i] - shown[i - 1] > 0.1;
    }
    EXPECT_NEAR(shown.back(), 24, 0.5);
    EXPECT_LE(gaps, 2) << "but for the hole";
    // What decodes is shown one picture after the other; its own times tell when.
    auto [flashes, clicks] = flashesAndClicks("out/master.m3u8", 25, "async=1:min_hard_comp=0.012");
    EXPECT_GE(flashes.size(), 22u);
    for (double& flash : flashes) {
        flash = shown.at(static_cast<size_t>(std::lround(flash * 25)));
        const bool heard = std::any_of(clicks.begin(), clicks.end(),
                                       [&](double click) { return std::abs(click - flash) < 0.02; });
        EXPECT_TRUE(heard || (flash > 13.5 && flash < 15.5)) << flash;
    }
}

TEST_F(InstalledTool, KeepsAWindowAndLeavesOutWhatIsTooMuch) {
    makeFlashesAndClicks("320x180", "-t 12 -g 25 -b:v 300k -f mpegts in.ts");
    ASSERT_EQ(run("kelvane", "live - --segment 1 --window 4 -r 320x180@300k < in.ts"), 0) << errors;
    const std::string playlist = contents(path("live/320x180/media.m3u8"));
    EXPECT_NE(playlist.find("#EXT-X-MEDIA-SEQUENCE:8\n"), std::string::npos) << playlist;
    EXPECT_EQ(names(path("live/320x180")),
              (std::set<std::string>{"8.m4s", "9.m4s", "10.m4s", "11.m4s", "init.mp4", "media.m3u8"}));
    EXPECT_EQ(probe("-select_streams v live/320x180/media.m3u8", "stream=nb_read_frames"), "100\n\n100\n");

    // Hardly a machine encodes 60 such pictures a second: the smaller rendition stands in.
    ffmpeg("-f lavfi -i testsrc2=size=320x180:rate=60 -t 6 -c:v libopenh264 -g 60 fast.ts");
    ASSERT_EQ(run("kelvane", "live - --segment 1 -r 4096x2304@20M -r 160x90@100k < fast.ts"), 0) << errors;
    EXPECT_NE(output.find("4096x2304 is left out"), std::string::npos) << output;
    const std::string large = contents(path("live/4096x2304/media.m3u8"));
    EXPECT_NE(large.find("#EXT-X-DISCONTINUITY\n#EXT-X-MAP:URI=\"../160x90/init.mp4\"\n"), std::string::npos)
        << large;
    EXPECT_EQ(entries(large, "#EXTINF:"), entries(contents(path("live/160x90/media.m3u8")), "#EXTINF:"));
    for (const std::string size : {"4096x2304", "160x90"})
        EXPECT_EQ(probe("live/" + size + "/media.m3u8", "stream=nb_read_frames"), "360\n\n360\n");

    expectFailure("live missing -o new", 1, "no such file");
    expectFailure("live - -o new --window 3", 2, "at least 3 segments");
    expectFailure("live - -o new --http 70000", 2, "expected a port");
}
