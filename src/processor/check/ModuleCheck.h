#pragma once

#include "processor/check/CrashReport.h"

#include <string>
#include <utility>
#include <vector>

struct ModuleCheckOptions {
    std::string module;
    std::vector<std::pair<std::string, std::string>> settings; // keys and values
    PictureSize picture{};                                     // none: the input's or 640x360
    int pictures = 0;                                          // none: all of the input or 100
    std::string input;                                         // none: a picture of our own
    std::string output;                                        // none: nothing is written
    bool plain = false;                                        // no guard pages, no report of crashes
    int seconds = 20;                                          // for one call; 0: any
};

// Leads a module through a life in the pipeline and prints what it finds. Returns the number of faults;
// throws std::runtime_error where a file cannot be read or written.
int checkModule(const ModuleCheckOptions& options);
