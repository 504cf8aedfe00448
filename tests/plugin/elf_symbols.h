// The dynamic symbol table of a shared library, read from its ELF file.
#pragma once

#include <string>
#include <vector>

namespace catra_test {

// Names of the symbols that the library defines and exports (global, weak or
// unique binding, defined in one of its sections). Throws std::runtime_error
// when the file cannot be read or is not an ELF shared object.
std::vector<std::string> exported_symbols(const std::string& path);

// Whether a mangled name belongs to the C++ runtime (an entity of namespace
// std or __gnu_cxx, or its typeinfo, vtable, guard or local static), or to the
// toolchain (a reserved name beginning with two underscores or with one and a
// capital letter, and _init, _fini, _edata, _end).
bool is_runtime_symbol(const std::string& name);

}  // namespace catra_test
