#pragma once

#include <cstdint>
#include <string>
#include <vector>

// The names of a module's functions, those that it does not export among them: read from its file ahead of
// any crash, so that a signal handler can tell them.
class ModuleSymbols {
public:
    // None where the file is stripped or is no 64-bit ELF file.
    explicit ModuleSymbols(const std::string& file);

    struct Function {
        uint64_t start = 0; // from where the library is mapped
        uint64_t size = 0;
        std::string name; // as C++ reads
    };
    const Function* find(uint64_t offset) const; // null: unknown

private:
    std::vector<Function> functions; // by their start
};

// A symbol as it reads in C++.
std::string demangled(const char* symbol);
