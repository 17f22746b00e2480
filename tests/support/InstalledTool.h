#pragma once

#include <gtest/gtest.h>

#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <regex>
#include <set>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace fs = std::filesystem;

inline std::string contents(const fs::path& file) {
    std::ifstream stream(file, std::ios::binary);
    return {std::istreambuf_iterator<char>(stream), {}};
}

inline std::set<std::string> names(const fs::path& directory) {
    std::set<std::string> found;
    for (const auto& entry : fs::directory_iterator(directory))
        found.insert(entry.path().filename());
    return found;
}

inline bool within(int seconds, const auto& holds) {
    for (int i = 0; i < 20 * seconds && !holds(); ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    return holds();
}

// The lines of a playlist that begin so, without that.
inline std::vector<std::string> entries(const std::string& playlist, const std::string& begin) {
    std::vector<std::string> found;
    std::istringstream lines(playlist);
    for (std::string line; std::getline(lines, line);)
        if (line.starts_with(begin)) found.push_back(line.substr(begin.size()));
    return found;
}

// The seconds of all segments of a playlist.
inline double duration(const fs::path& playlist) {
    double seconds = 0;
    for (const std::string& segment : entries(contents(playlist), "#EXTINF:"))
        seconds += std::stod(segment);
    return seconds;
}

// The installed tree, and a directory of the test's own.
class WithInstalledTree : public testing::Test {
protected:
    WithInstalledTree() {
        if (!std::getenv("KELVANE_DIST"))
            throw std::runtime_error("KELVANE_DIST must name the installed tree");
        tree = std::getenv("KELVANE_DIST");
        std::string pattern = fs::temp_directory_path() / "kelvane test XXXXXX";
        if (!mkdtemp(pattern.data())) throw std::runtime_error("mkdtemp");
        directory = fs::canonical(pattern);
    }
    ~WithInstalledTree() override { fs::remove_all(directory); }

    fs::path tree, directory;
};

// The command-line tool of that tree, called from that directory.
class InstalledTool : public WithInstalledTree {
protected:
    void SetUp() override {
        fs::copy(TEST_DATA "/bframes.h264", path("in.h264"));
        std::ofstream(path(".output")), std::ofstream(path(".errors"));
    }
    void TearDown() override { checkLadders(); }

    // Has all the ladders that a test leaves looked at, box by box.
    void checkLadders() {
        std::string ladders;
        for (const auto& entry : fs::recursive_directory_iterator(directory))
            if (entry.path().filename() == "master.m3u8")
                ladders += " '" + entry.path().parent_path().string() + "'";
        if (ladders.empty()) return;
        const std::string check = "exec java -XX:TieredStopAtLevel=1 -cp '" TEST_JAR
                                  "' com.kelvane.media.test.LadderCheck " +
                                  ladderOptions + ladders + " >'" + path(".ladders").string() + "' 2>&1";
        EXPECT_EQ(std::system(check.c_str()), 0) << contents(path(".ladders"));
    }

    fs::path path(const std::string& name) const { return directory / name; }

    // Starts a program of the tree in its own process; what it prints goes to `output` and `errors`.
    pid_t start(const std::string& program, const std::string& arguments,
                const std::string& standardOutput = ".output") const {
        const pid_t child = fork();
        if (child == 0) {
            const std::string command = "exec '" + (tree / "bin" / program).string() + "' " + arguments +
                                        " >" + standardOutput + " 2>.errors";
            if (chdir(directory.c_str()) == 0) execl("/bin/sh", "sh", "-c", command.c_str(), nullptr);
            _exit(127);
        }
        return child;
    }
    int finish(pid_t child) {
        int status = 0;
        waitpid(child, &status, 0);
        output = contents(path(".output"));
        errors = contents(path(".errors"));
        return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    }
    int run(const std::string& program, const std::string& arguments,
            const std::string& standardOutput = ".output") {
        return finish(start(program, arguments, standardOutput));
    }

    // For what has to succeed.
    void ffmpeg(const std::string& arguments) {
        ASSERT_EQ(run("ffmpeg", "-v error -y " + arguments), 0) << errors;
    }
    void kelvane(const std::string& arguments) {
        ASSERT_EQ(run("kelvane", arguments), 0) << errors;
        EXPECT_EQ(errors, "");
    }
    // The decibels that a rendition was found to have, by the summary's line about it.
    double quality(const std::string& rendition, const std::string& pictures) const {
        std::smatch row;
        const std::regex line("\n" + rendition + " +" + pictures + " .* ([0-9.]+) dB ");
        EXPECT_TRUE(std::regex_search(output, row, line)) << output;
        return row.empty() ? 0 : std::stod(row[1]);
    }
    // What ffprobe says of packets 1/`rate` seconds apart with a key frame every 10, by
    // "packet=pts_time,flags".
    static std::string evenPackets(int count, double rate) {
        std::string packets;
        for (int i = 0; i < count; ++i) {
            char line[32];
            snprintf(line, sizeof line, "%.6f,%s\n", i / rate, i % 10 == 0 ? "K_" : "__");
            packets += line;
        }
        return packets;
    }

    std::string probe(const std::string& file, const std::string& entries) {
        EXPECT_EQ(run("ffprobe", "-v error -count_frames -of csv=p=0 -show_entries " + entries + " " + file),
                  0)
            << errors;
        return output;
    }
    // A flash and a click each second, from the first on.
    void makeFlashesAndClicks(const std::string& size, const std::string& result) {
        ffmpeg("-f lavfi -i \"color=size=" + size +
               ":rate=25,drawbox=color=white:t=fill:enable='between(mod(t,1),0.47,0.55)'\""
               " -f lavfi -i \"aevalsrc='if(between(mod(t,1),0.481,0.51),0.9*sin(6000*t),0)':s=48000\""
               " -c:v libopenh264 -c:a aac " +
               result);
    }
    // When they begin in a file.
    std::pair<std::vector<double>, std::vector<double>> flashesAndClicks(const std::string& file, double rate,
                                                                         const std::string& resampling) {
        ffmpeg("-i " + file + " -vsync 0 -vf scale=1:1,format=rgb24 -f rawvideo pictures -af aresample=" +
               resampling + ":first_pts=0 -ac 1 -ar 48000 -f s16le samples");
        return {
            beginnings("pictures", 3, rate, [](const char* rgb) { return static_cast<uint8_t>(*rgb) > 128; }),
            beginnings("samples", 2, 48000, [](const char* sample) {
                return std::abs(*reinterpret_cast<const int16_t*>(sample)) > 6000;
            })};
    }
    // The first of values above the limit, each time after a rest.
    std::vector<double> beginnings(const std::string& file, size_t size, double rate,
                                   const auto& isLoud) const {
        const std::string values = contents(path(file));
        std::vector<double> times;
        for (size_t i = 0; (i + 1) * size <= values.size(); ++i)
            if (const double time = static_cast<double>(i) / rate;
                isLoud(&values[i * size]) && (times.empty() || time - times.back() > 0.5))
                times.push_back(time);
        return times;
    }
    void expectFailure(const std::string& arguments, int exitCode, const std::string& reason) {
        SCOPED_TRACE(arguments);
        const std::set<std::string> before = names(directory);
        EXPECT_EQ(run("kelvane", arguments), exitCode);
        // The library's own words of a module come before the tool's.
        const std::string said = std::regex_replace(errors, std::regex("module [^\n]*\n"), "");
        EXPECT_TRUE(std::regex_match(said, std::regex("kelvane[^\n]*" + reason + "[^\n]*\n"))) << errors;
        EXPECT_EQ(names(directory), before);
    }

    std::string output, errors;
    std::string ladderOptions; // for the check of ladders
};
