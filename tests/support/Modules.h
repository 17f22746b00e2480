#pragma once

#include "modules/recording_module.h"

#include <string>

// Path of a recording module of the tests, "recorder" for instance.
std::string modulePath(const std::string& name);

// The record of that module, which stays mapped from then on.
ModuleRecord& moduleRecordOf(const std::string& name);

bool isMapped(const std::string& libraryPath);
