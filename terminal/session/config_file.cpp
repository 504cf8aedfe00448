#include "session/config_file.h"

#include <ini.h>

namespace terminal {

namespace {

int store_entry(void* user, const char* section, const char* name, const char* value)
{
    auto* config = static_cast<standin::Config*>(user);
    config->set(section, name, value);
    return 1;
}

}  // namespace

std::string load_config_file(const std::string& path, standin::Config& config)
{
    const int result = ini_parse(path.c_str(), store_entry, &config);
    if (result == 0)
        return "";
    if (result == -1)
        return path + ": cannot be read";
    if (result == -2)
        return path + ": out of memory";
    return path + ":" + std::to_string(result) + ": not a section, a key = value or a comment";
}

}  // namespace terminal
