#pragma once

#include <functional>
#include <string>

// What `action` prints on standard output (descriptor 1) or standard error (2).
std::string printedBy(const std::function<void()>& action, int descriptor = 1);

// Standard output and the exit code of a shell command.
struct CommandResult {
    int exitCode;
    std::string output;
};
CommandResult run(const std::string& command);
