// The configuration store and the host switches kept in it.
#include "ac/config.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <sstream>
#include <vector>

#include "ac/ac_exception.h"
#include "host_internal.h"
#include "standin/config.h"

namespace standin {

Config& Config::instance()
{
    static Config* config = new Config();
    return *config;
}

void Config::set(const std::string& module, const std::string& key, const std::string& value)
{
    std::lock_guard<std::mutex> lock(mutex_);
    values_[{module, key}] = value;
}

void Config::set(const std::string& module, const std::string& key, long long value)
{
    set(module, key, std::to_string(value));
}

void Config::erase(const std::string& module, const std::string& key)
{
    std::lock_guard<std::mutex> lock(mutex_);
    values_.erase({module, key});
}

bool Config::get(const std::string& module, const std::string& key, std::string* value) const
{
    std::lock_guard<std::mutex> lock(mutex_);
    auto it = values_.find({module, key});
    if (it == values_.end())
        return false;
    if (value)
        *value = it->second;
    return true;
}

void Config::clear()
{
    std::lock_guard<std::mutex> lock(mutex_);
    values_.clear();
}

}  // namespace standin

namespace {

const char* const kHost = "host";

std::string trimmed(const std::string& text)
{
    const auto first = text.find_first_not_of(" \t");
    if (first == std::string::npos)
        return "";
    const auto last = text.find_last_not_of(" \t");
    return text.substr(first, last - first + 1);
}

// A whole decimal int, optionally signed and surrounded by blanks.
bool parse_int(const std::string& text, int* out)
{
    const std::string digits = trimmed(text);
    if (digits.empty())
        return false;
    errno = 0;
    char* end = nullptr;
    const long value = std::strtol(digits.c_str(), &end, 10);
    if (*end != '\0' || errno == ERANGE || value < INT_MIN || value > INT_MAX)
        return false;
    *out = static_cast<int>(value);
    return true;
}

std::string param_name(const std::string& module, const std::string& key)
{
    return module.empty() ? key : module + "." + key;
}

// The entries of a comma-separated host switch, blanks trimmed; none when
// the switch is missing or blank.
std::vector<std::string> host_list(const char* key)
{
    std::string text;
    standin::Config::instance().get(kHost, key, &text);
    std::vector<std::string> entries;
    if (trimmed(text).empty())
        return entries;
    std::istringstream list(text);
    std::string entry;
    while (std::getline(list, entry, ','))
        entries.push_back(trimmed(entry));
    return entries;
}

std::vector<int> buttonhole_gpios()
{
    std::vector<int> gpios;
    for (const std::string& entry : host_list("buttonholes")) {
        int gpio = -1;
        if (!parse_int(entry, &gpio))
            gpio = -1;
        gpios.push_back(gpio);
    }
    return gpios;
}

}  // namespace

void standin::fail_if_configured(const std::string& utility)
{
    const std::vector<std::string> failing = host_list("failing");
    if (std::find(failing.begin(), failing.end(), utility) != failing.end())
        throw ac::ac_exception(utility + " failure", true);
}

namespace ac {
namespace config {

bool get_param(const std::string& module, const std::string& key, std::string& value, bool flag)
{
    if (standin::Config::instance().get(module, key, &value))
        return true;
    if (flag)
        throw ac_exception("Parameter " + param_name(module, key) + " not found", true);
    return false;
}

}  // namespace config

namespace config_util {

int get_int(const std::string& module, const std::string& key, bool flag)
{
    std::string text;
    if (!config::get_param(module, key, text, flag))
        return 0;
    int value = 0;
    if (parse_int(text, &value))
        return value;
    if (flag) {
        throw ac_exception(
            "Parameter " + param_name(module, key) + " is not an integer: \"" + text + "\"", true);
    }
    return 0;
}

int get_int(const std::string& key, bool flag)
{
    return get_int("", key, flag);
}

bool online()
{
    return get_int(kHost, "online", false) != 0;
}

int exception_mode()
{
    std::string text;
    config::get_param(kHost, "exception_mode", text, false);
    return str_to_exception_mode(text);
}

int str_to_exception_mode(const std::string& text)
{
    int mode = 0;
    if (parse_int(text, &mode))
        return mode;
    if (text == "free")
        return 1;
    if (text == "blocked")
        return 2;
    return 0;
}

bool antipassback_enabled()
{
    return get_int(kHost, "antipassback_enabled", false) != 0;
}

void antipassback_enabled(bool enabled)
{
    standin::Config::instance().set(kHost, "antipassback_enabled", enabled ? 1LL : 0LL);
}

void antipassback_mode(const std::string& mode)
{
    standin::Config::instance().set(kHost, "antipassback_mode", mode);
}

int buttonhole_count()
{
    return static_cast<int>(buttonhole_gpios().size());
}

// -1 for a number outside 1..count or an entry that is not a number.
int buttonhole(int n)
{
    const std::vector<int> gpios = buttonhole_gpios();
    if (n < 1 || n > static_cast<int>(gpios.size()))
        return -1;
    return gpios[static_cast<size_t>(n - 1)];
}

}  // namespace config_util
}  // namespace ac
