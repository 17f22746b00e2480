#pragma once

#include <functional>
#include <string>

// What `action` prints on standard output (descriptor 1) or standard error (2).
std::string printedBy(const std::function<void()>& action, int descriptor = 1);

// `text` so many times.
std::string repeated(const std::string& text, int times);

// How many times as long as in ./check the tests with chance in them run: see docs/reliability.md.
int effort();

// Standard output and the exit code of a shell command.
struct CommandResult {
    int exitCode;
    std::string output;
};
CommandResult run(const std::string& command);
