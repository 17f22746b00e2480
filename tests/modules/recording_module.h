#pragma once

#include <functional>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

// What a recording module saw, and what it is told to do.
struct ModuleRecord {
    // In order: "create 1" (the number of the object), "Open 160 96 3 1 0 1", "Process 23040 1000", "delete
    // 1", "destroy 1" and so on, by the slot or entry point that was called. Not the exported GetGuid.
    std::vector<std::string> calls;
    std::set<std::thread::id> threads;
    int created = 0;
    int freed = 0;

    std::function<int(unsigned char* data, int size, int* timestamp)> process;
    unsigned int guid = 0; // what objects answer; 0 means that of the module
    bool refuseToCreate = false;
    std::string throwIn; // a slot's or entry point's name, "exported GetGuid" among them
    bool throwWithoutMessage = false;

    std::vector<std::string> take() { return std::exchange(calls, {}); }
};

// Exported by each recording module, with a record of its own.
extern "C" __attribute__((visibility("default"))) ModuleRecord* moduleRecord();
