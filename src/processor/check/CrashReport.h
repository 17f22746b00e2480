#pragma once

#include "processor/check/ModuleSymbols.h"

#include <functional>
#include <string>
#include <vector>

struct PictureSize {
    int width = 0; // pixels; 0 while no size was announced
    int height = 0;
};

// Marks the calling thread as being inside an operation of the module. Only on threads of runLikeJava().
class CurrentCall {
public:
    CurrentCall(const char* operation, PictureSize size);
    ~CurrentCall();
    CurrentCall(const CurrentCall&) = delete;
    CurrentCall& operator=(const CurrentCall&) = delete;
};

// From now on a crash, an exit() and an operation that does not return within `seconds` (0: however long it
// takes) end the process with exit code 1, after a report on standard output of what happened where. The time
// does not run out under a debugger. `file` is the path that the module is opened by.
void reportCrashes(const std::string& file, const ModuleSymbols& symbols, int seconds);

// A file to remove when the process ends by a crash; empty for none.
void removeAtCrash(const std::string& file);

// Runs actions on a thread each, of the stack size that Java gives its own, and waits for them. What
// one throws is thrown again here.
void runLikeJava(const std::vector<std::function<void()>>& actions);
