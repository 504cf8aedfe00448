#include "bytes_text.h"

#include <cstdio>

namespace catra_test {

std::string escape_bytes(const std::string& bytes)
{
    std::string text;
    for (const char c : bytes) {
        const auto byte = static_cast<unsigned char>(c);
        if (byte == 0) {
            text += "\\0";
        } else if (byte == '\\' || byte == '"') {
            text += '\\';
            text += c;
        } else if (byte >= 0x20 && byte < 0x7f) {
            text += c;
        } else {
            char hex[8];
            std::snprintf(hex, sizeof hex, "\\x%02x", byte);
            text += hex;
        }
    }
    return text;
}

std::string escape_list(const std::vector<std::string>& items)
{
    std::string text = "[";
    for (std::size_t i = 0; i < items.size(); ++i) {
        if (i > 0)
            text += ", ";
        text += '"' + escape_bytes(items[i]) + '"';
    }
    return text + "]";
}

}  // namespace catra_test
