#include "elf_symbols.h"

#include <elf.h>

#include <cstring>
#include <fstream>
#include <iterator>
#include <stdexcept>

namespace catra_test {

namespace {

template <typename T>
T read_at(const std::string& image, std::size_t offset)
{
    if (offset > image.size() || image.size() - offset < sizeof(T))
        throw std::runtime_error("truncated ELF file");
    T value;
    std::memcpy(&value, image.data() + offset, sizeof(T));
    return value;
}

template <typename Ehdr, typename Shdr, typename Sym>
std::vector<std::string> dynamic_exports(const std::string& image)
{
    const auto header = read_at<Ehdr>(image, 0);
    std::vector<std::string> names;
    for (unsigned i = 0; i < header.e_shnum; ++i) {
        const auto section =
            read_at<Shdr>(image, header.e_shoff + std::size_t{i} * header.e_shentsize);
        if (section.sh_type != SHT_DYNSYM)
            continue;
        const auto strings = read_at<Shdr>(
            image, header.e_shoff + std::size_t{section.sh_link} * header.e_shentsize);
        const std::size_t count = section.sh_size / sizeof(Sym);
        for (std::size_t s = 1; s < count; ++s) {
            const auto symbol = read_at<Sym>(image, section.sh_offset + s * sizeof(Sym));
            const unsigned binding = symbol.st_info >> 4;
            const bool exported =
                binding == STB_GLOBAL || binding == STB_WEAK || binding == STB_GNU_UNIQUE;
            if (!exported || symbol.st_shndx == SHN_UNDEF)
                continue;
            const std::size_t at = strings.sh_offset + symbol.st_name;
            if (at >= image.size())
                throw std::runtime_error("bad symbol name offset");
            names.emplace_back(image.c_str() + at);
        }
    }
    return names;
}

bool starts_with(const std::string& text, std::size_t at, const char* prefix)
{
    return text.compare(at, std::strlen(prefix), prefix) == 0;
}

}  // namespace

std::vector<std::string> exported_symbols(const std::string& path)
{
    std::ifstream file(path, std::ios::binary);
    if (!file)
        throw std::runtime_error("cannot read " + path);
    const std::string image((std::istreambuf_iterator<char>(file)),
                            std::istreambuf_iterator<char>());
    if (image.size() < EI_NIDENT || image.compare(0, SELFMAG, ELFMAG) != 0)
        throw std::runtime_error(path + " is not an ELF file");
    if (image[EI_CLASS] == ELFCLASS64)
        return dynamic_exports<Elf64_Ehdr, Elf64_Shdr, Elf64_Sym>(image);
    if (image[EI_CLASS] == ELFCLASS32)
        return dynamic_exports<Elf32_Ehdr, Elf32_Shdr, Elf32_Sym>(image);
    throw std::runtime_error(path + ": unknown ELF class");
}

bool is_runtime_symbol(const std::string& name)
{
    if (name == "_init" || name == "_fini" || name == "_edata" || name == "_end")
        return true;
    if (name.size() >= 2 && name[0] == '_' &&
        (name[1] == '_' || (name[1] >= 'A' && name[1] <= 'Z')) && !starts_with(name, 0, "_Z"))
        return true;
    if (!starts_with(name, 0, "_Z"))
        return false;
    std::size_t at = 2;
    // Special names: typeinfo, typeinfo name, vtable, VTT, guard variables,
    // and the local entities of a function (_ZZ <function> E <name>).
    if (starts_with(name, at, "TI") || starts_with(name, at, "TS") || starts_with(name, at, "TV") ||
        starts_with(name, at, "TT") || starts_with(name, at, "GV"))
        at += 2;
    if (starts_with(name, at, "Z"))
        at += 1;
    if (starts_with(name, at, "N")) {
        at += 1;
        while (at < name.size() && (name[at] == 'r' || name[at] == 'V' || name[at] == 'K'))
            ++at;
        if (at < name.size() && (name[at] == 'R' || name[at] == 'O'))
            ++at;
    }
    // St: std::; Sa, Sb, Ss, Si, So, Sd: std::allocator, basic_string, string
    // and the standard streams.
    if (starts_with(name, at, "St") || starts_with(name, at, "Sa") || starts_with(name, at, "Sb") ||
        starts_with(name, at, "Ss") || starts_with(name, at, "Si") || starts_with(name, at, "So") ||
        starts_with(name, at, "Sd"))
        return true;
    return starts_with(name, at, "9__gnu_cxx");
}

}  // namespace catra_test
