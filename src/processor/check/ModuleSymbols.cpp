#include "processor/check/ModuleSymbols.h"

#include <cxxabi.h>
#include <elf.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>

namespace {

// The record at an offset of the file; zeroes where the file ends ahead of it.
template <class Record>
Record recordAt(const std::string& file, uint64_t offset) {
    Record record{};
    if (offset <= file.size() && file.size() - offset >= sizeof record)
        std::memcpy(&record, file.data() + offset, sizeof record);
    return record;
}

} // namespace

std::string demangled(const char* symbol) {
    int status = 0;
    const std::unique_ptr<char, void (*)(void*)> name(abi::__cxa_demangle(symbol, nullptr, nullptr, &status),
                                                      std::free);
    return name ? name.get() : symbol;
}

ModuleSymbols::ModuleSymbols(const std::string& path) {
    if (!std::filesystem::is_regular_file(path)) return;
    std::ifstream stream(path, std::ios::binary);
    const std::string file{std::istreambuf_iterator<char>(stream), {}};
    const auto header = recordAt<Elf64_Ehdr>(file, 0);
    if (std::memcmp(header.e_ident, ELFMAG, SELFMAG) != 0 || header.e_ident[EI_CLASS] != ELFCLASS64) return;
    for (uint64_t section = 0; section < header.e_shnum; ++section) {
        const auto table = recordAt<Elf64_Shdr>(file, header.e_shoff + section * sizeof(Elf64_Shdr));
        if (table.sh_type != SHT_SYMTAB && table.sh_type != SHT_DYNSYM) continue;
        const auto names = recordAt<Elf64_Shdr>(file, header.e_shoff + table.sh_link * sizeof(Elf64_Shdr));
        for (uint64_t i = 0; i < std::min<uint64_t>(table.sh_size, file.size()) / sizeof(Elf64_Sym); ++i) {
            const auto symbol = recordAt<Elf64_Sym>(file, table.sh_offset + i * sizeof(Elf64_Sym));
            const uint64_t name = names.sh_offset + symbol.st_name;
            if (ELF64_ST_TYPE(symbol.st_info) != STT_FUNC || !symbol.st_value || name >= file.size())
                continue;
            functions.push_back({symbol.st_value, symbol.st_size, demangled(file.c_str() + name)});
        }
    }
    std::ranges::sort(functions, {}, &Function::start);
}

const ModuleSymbols::Function* ModuleSymbols::find(uint64_t offset) const {
    const auto next = std::ranges::upper_bound(functions, offset, {}, &Function::start);
    if (next == functions.begin() || offset >= std::prev(next)->start + std::prev(next)->size) return nullptr;
    return &*std::prev(next);
}
