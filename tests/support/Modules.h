#pragma once

#include "modules/recording_module.h"

#include <dlfcn.h>

// Path of a module of the tests, "recorder" for instance.
inline std::string modulePath(const std::string& name) { return TEST_TREE "/modules/" + name + ".so"; }

// The record of a recording module, which stays mapped from then on.
inline ModuleRecord& moduleRecordOf(const std::string& name) {
    void* library = dlopen(modulePath(name).c_str(), RTLD_LAZY);
    return *reinterpret_cast<ModuleRecord* (*)()>(dlsym(library, "moduleRecord"))();
}

inline bool isMapped(const std::string& library) {
    void* handle = dlopen(library.c_str(), RTLD_LAZY | RTLD_NOLOAD);
    return handle && dlclose(handle) == 0;
}
