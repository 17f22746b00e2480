#pragma once

#include <functional>
#include <string>
#include <utility>
#include <vector>

// What a recording module saw, and what it is told to do.
struct ModuleRecord {
    // In order: "create", "Open 160 96 3 1 0 1", "Process 23040 1000", "delete", "destroy" and so on, by the
    // slot or entry point that was called. Not the exported GetGuid.
    std::vector<std::string> calls;
    int live = 0; // objects made and not yet freed

    std::function<int(unsigned char* data, int size, int* timestamp)> process;
    std::string throwIn; // a name as in `calls`, or "exported GetGuid"

    std::vector<std::string> take() { return std::exchange(calls, {}); }
};

// Exported by each recording module, with a record of its own.
extern "C" __attribute__((visibility("default"))) ModuleRecord* moduleRecord();
