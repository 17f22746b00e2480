#include "support/Modules.h"

#include <dlfcn.h>
#include <gtest/gtest.h>

std::string modulePath(const std::string& name) { return TEST_TREE "/modules/" + name + ".so"; }

ModuleRecord& moduleRecordOf(const std::string& name) {
    void* library = dlopen(modulePath(name).c_str(), RTLD_LAZY);
    EXPECT_TRUE(library) << dlerror();
    return *reinterpret_cast<ModuleRecord* (*)()>(dlsym(library, "moduleRecord"))();
}

bool isMapped(const std::string& libraryPath) {
    void* library = dlopen(libraryPath.c_str(), RTLD_LAZY | RTLD_NOLOAD);
    if (library) dlclose(library);
    return library;
}
