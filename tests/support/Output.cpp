#include "support/Output.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <iostream>

namespace {

std::string readAll(FILE* file) {
    std::string text;
    char chunk[4096];
    for (size_t n; (n = std::fread(chunk, 1, sizeof chunk, file)) > 0;)
        text.append(chunk, n);
    return text;
}

int failures() {
    const testing::TestInfo* test = testing::UnitTest::GetInstance()->current_test_info();
    return test ? test->result()->total_part_count() : 0;
}

} // namespace

std::string printedBy(const std::function<void()>& action, int descriptor) {
    const auto flush = [] {
        std::cout.flush();
        std::fflush(nullptr);
    };
    flush();
    FILE* caught = std::tmpfile();
    const int original = dup(descriptor);
    const int before = failures();
    std::exception_ptr thrown;
    dup2(fileno(caught), descriptor);
    try {
        action();
    } catch (...) {
        thrown = std::current_exception();
    }
    flush();
    dup2(original, descriptor);
    close(original);
    std::rewind(caught);
    std::string text = readAll(caught);
    std::fclose(caught);
    // What GoogleTest says of a failure inside the action was caught with the rest.
    if (thrown || failures() != before) std::fputs(text.c_str(), stderr);
    if (thrown) std::rethrow_exception(thrown);
    return text;
}

std::string repeated(const std::string& text, int times) {
    return times > 0 ? text + repeated(text, times - 1) : "";
}

int effort() {
    const char* factor = std::getenv("KELVANE_EFFORT");
    return factor ? std::max(1, std::atoi(factor)) : 1;
}

CommandResult run(const std::string& command) {
    FILE* pipe = popen(command.c_str(), "r");
    EXPECT_TRUE(pipe) << command;
    std::string output = readAll(pipe);
    const int status = pclose(pipe);
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, output};
}
