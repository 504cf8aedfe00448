#include "live/guard.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <random>
#include <sstream>

namespace terminal {

namespace {

// The name of the cookie that carries the secret, once the page has it.
const std::string kTokenCookie = "catra_live_token";
const std::string kBearer = "Bearer ";
constexpr std::size_t kShortestToken = 16;

bool is_ip_literal(const std::string& host)
{
    in6_addr ip{};
    return ::inet_pton(AF_INET, host.c_str(), &ip) == 1 ||
           ::inet_pton(AF_INET6, host.c_str(), &ip) == 1;
}

// The host name of a Host header value ("name:port", "[v6]:port", "name").
std::string host_name(const std::string& value)
{
    if (!value.empty() && value.front() == '[') {
        const auto end = value.find(']');
        return end == std::string::npos ? value : value.substr(1, end - 1);
    }
    return value.substr(0, value.find(':'));
}

// Compares without returning early, so that the time taken tells nothing of
// how much of a guess was right.
bool same_secret(const std::string& given, const std::string& secret)
{
    unsigned char differ = given.size() == secret.size() ? 0 : 1;
    for (std::size_t i = 0; i < secret.size(); ++i)
        differ |= static_cast<unsigned char>(secret[i] ^ (i < given.size() ? given[i] : 0));
    return differ == 0;
}

// The value of one cookie of a Cookie header, or "".
std::string cookie_value(const std::string& header, const std::string& name)
{
    std::istringstream list(header);
    for (std::string pair; std::getline(list, pair, ';');) {
        const auto start = pair.find_first_not_of(' ');
        if (start != std::string::npos && pair.compare(start, name.size() + 1, name + "=") == 0)
            return pair.substr(start + name.size() + 1);
    }
    return "";
}

}  // namespace

std::optional<ListenAddress> parse_listen_address(const std::string& text, std::string* error)
{
    ListenAddress address;
    std::string port = text;
    const auto colon = text.rfind(':');
    if (colon != std::string::npos) {
        address.host = text.substr(0, colon);
        port = text.substr(colon + 1);
        if (address.host.size() >= 2 && address.host.front() == '[' && address.host.back() == ']')
            address.host = address.host.substr(1, address.host.size() - 2);
        if (address.host != "localhost" && !is_ip_literal(address.host)) {
            *error = "\"" + address.host + "\" is not an IP address or localhost";
            return std::nullopt;
        }
    }
    if (port.empty() || port.size() > 5 || port.find_first_not_of("0123456789") != port.npos ||
        std::stoi(port) > 65535) {
        *error = "the port must be a number from 0 to 65535, not \"" + port + "\"";
        return std::nullopt;
    }
    address.port = std::stoi(port);
    return address;
}

std::string http_address_error(const std::string& text)
{
    std::string error;
    parse_listen_address(text, &error);
    return error;
}

std::string http_token_error(const std::string& text)
{
    const bool plain = std::all_of(text.begin(), text.end(), [](char c) {
        return std::isalnum(static_cast<unsigned char>(c)) || c == '-' || c == '_' || c == '.';
    });
    if (text.size() < kShortestToken || !plain) {
        return "the secret must be " + std::to_string(kShortestToken) +
               " or more letters, digits, '-', '_' or '.'";
    }
    return "";
}

bool is_loopback(const std::string& host)
{
    in_addr ip{};
    if (::inet_pton(AF_INET, host.c_str(), &ip) == 1)
        return (ntohl(ip.s_addr) >> 24) == 127;
    return host == "localhost" || host == "::1";
}

std::string new_token()
{
    std::random_device random;
    std::string token;
    for (int i = 0; i < 4; ++i) {
        char part[9];
        std::snprintf(part, sizeof part, "%08x", static_cast<unsigned>(random()));
        token += part;
    }
    return token;
}

Guard::Guard(std::string listen_host, std::string token)
    : listen_host_(std::move(listen_host)), token_(std::move(token))
{
}

bool Guard::allowed(const std::string& host_header, const std::optional<std::string>& origin) const
{
    const std::string host = host_name(host_header);
    const bool wildcard = listen_host_ == "0.0.0.0" || listen_host_ == "::";
    if (host.empty() ||
        !(is_loopback(host) || host == listen_host_ || (wildcard && is_ip_literal(host))))
        return false;
    return !origin || *origin == "http://" + host_header;
}

Guard::Secret Guard::secret(const std::string& token_parameter, const std::string& cookie_header,
                            const std::string& authorization_header) const
{
    if (token_.empty())
        return Secret::not_needed;
    if (same_secret(token_parameter, token_))
        return Secret::in_query;
    const bool bearer = authorization_header.compare(0, kBearer.size(), kBearer) == 0 &&
                        same_secret(authorization_header.substr(kBearer.size()), token_);
    if (bearer || same_secret(cookie_value(cookie_header, kTokenCookie), token_))
        return Secret::carried;
    return Secret::missing;
}

std::string Guard::cookie() const
{
    return kTokenCookie + "=" + token_ + "; Path=/; HttpOnly; SameSite=Strict";
}

}  // namespace terminal
