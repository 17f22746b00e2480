#include "support/InstalledTool.h"
#include "support/Output.h"

#include <gtest/gtest.h>

#include <chrono>
#include <csignal>

namespace {

// Programs as a server is one, with the installed tree: com.kelvane.media.test.Life says what they do.
class InstalledLife : public WithInstalledTree {
protected:
    void TearDown() override {
        EXPECT_EQ(names(directory), std::set<std::string>{}) << "a crash leaves a file here";
    }

    // What the program tells on standard error; what codecs print goes to `output`.
    CommandResult java(const std::string& life, const std::string& numbers, const std::string& options = "",
                       const std::string& output = "/dev/null") const {
        return run("cd '" + directory.string() + "' && timeout -k 1 600 java " + options +
                   " -Xms64m -Xmx64m -XX:+UseSerialGC -XX:TieredStopAtLevel=1 -cp '" + tree.string() +
                   "/lib/kelvane-media.jar:" TEST_JAR "' com.kelvane.media.test.Life " + life +
                   " " TEST_DATA "/baseline.h264 " + numbers + " 2>&1 >" + output);
    }
    void expectTold(const CommandResult& result, const std::string& told) const {
        EXPECT_EQ(result.exitCode, 0);
        EXPECT_TRUE(std::regex_search(result.output, std::regex(told))) << result.output;
        EXPECT_EQ(result.output.find("WARNING"), std::string::npos) << result.output;
        std::printf("%s", result.output.c_str());
    }
};

} // namespace

TEST_F(InstalledLife, EndsInTheMiddleOfEncoding) {
    const struct {
        const char* name;
        int signal, exitCode;
    } endings[] = {
        {"System.exit", 0, 7}, {"SIGTERM", SIGTERM, 128 + SIGTERM}, {"SIGINT", SIGINT, 128 + SIGINT}};
    for (const auto& [name, signal, exitCode] : endings) {
        double longest = 0;
        const int rounds = effort() > 1 ? 100 : 2;
        for (int round = 0; round < rounds; ++round) {
            const auto begin = std::chrono::steady_clock::now();
            const std::string numbers = std::to_string(1 + round * 7 % 40) + " " + std::to_string(signal);
            const CommandResult result = java("ending", numbers);
            ASSERT_EQ(result.exitCode, exitCode) << name << "\n" << result.output;
            EXPECT_EQ(result.output, "") << name;
            const std::chrono::duration<double> taken = std::chrono::steady_clock::now() - begin;
            longest = std::max(longest, taken.count());
        }
        EXPECT_LT(longest, 20) << name;
        std::printf("%s: %d processes, at most %.1f s from start to end\n", name, rounds, longest);
    }
}

TEST_F(InstalledLife, DeliversWhatJavaHasMemoryFor) {
    expectTold(java("shortage", ""), "^delivered \\[0, 2\\], then an error\n");
}

// A hundred transcoders' lines are more than a pipe holds.
TEST_F(InstalledLife, PrintsNothingIntoAPipeThatNobodyReads) {
    const std::string pipe = fs::temp_directory_path() / "kelvane unread";
    ASSERT_EQ(run("rm -f '" + pipe + "' && mkfifo '" + pipe + "'").exitCode, 0);
    expectTold(java("peaks", "1 110", "", "/dev/null 9<>'" + pipe + "' >&9"), "^110 transcoders: [^\n]*\n$");
    fs::remove(pipe);
}

// Those of a stranger who sends nothing but rubbish, where the server's output goes to a file and to a
// reader.
TEST_F(InstalledLife, PaysLittleForDiagnostics) {
    const std::string file = fs::temp_directory_path() / "kelvane lines";
    for (const std::string& output : {"'" + file + "'", std::string("/dev/full")}) {
        const CommandResult result = java("lines", "100000", "", output);
        expectTold(result, "^100000 lines in");
        EXPECT_LT(std::stod(result.output.substr(std::string("100000 lines in ").size())), 10);
    }
    EXPECT_GT(fs::file_size(file), 100'000 * 20u);
    fs::remove(file);
}

// Three times: what the first peak leaves may serve the second, and what that leaves has to go as well.
TEST_F(InstalledLife, GivesTheMemoryOfAPeakBack) {
    expectTold(java("peaks", "3 100"), "100 transcoders: [0-9]+ MB at the peak, [0-9]+ MB after it\n");
}

TEST_F(InstalledLife, GoesOnAndOn) {
    const std::string numbers = effort() > 1 ? "100000 10000" : "3000 150";
    expectTold(java("soak", numbers), "the last stream's [0-9]+ bytes are the first's\n");
}
