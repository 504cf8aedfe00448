// Who may use the live view: the address it listens on, the Host and Origin
// that a request names, and, off loopback, the secret every request carries.
#pragma once

#include <optional>
#include <string>

namespace terminal {

struct ListenAddress {
    std::string host = "127.0.0.1";
    int port = 0;
};

// [ADDR:]PORT, ADDR an IPv4 literal, "localhost" or a bracketed IPv6 literal
// (127.0.0.1 when left out); port 0 takes any free port. Nothing, with
// *error saying what is wrong, when the text is none of these.
std::optional<ListenAddress> parse_listen_address(const std::string& text, std::string* error);
// "" when `text` is a valid [ADDR:]PORT for --http, else what is wrong.
std::string http_address_error(const std::string& text);
// "" when `text` may be the live view's secret (--http-token), else what is wrong.
std::string http_token_error(const std::string& text);
// A loopback name or address: nobody on another machine can reach it.
bool is_loopback(const std::string& host);
// A new secret: 128 random bits, as hexadecimal digits.
std::string new_token();

class Guard {
public:
    // For a server listening on `listen_host`; `token` is the secret that
    // every request must carry, empty when none is needed (loopback).
    Guard(std::string listen_host, std::string token);

    // Whether a request naming this Host (and Origin, when it has one) is for
    // this server: a loopback name, the address listened on, or, listening on
    // every address, any IP literal; an Origin must be this very server.
    bool allowed(const std::string& host_header, const std::optional<std::string>& origin) const;

    // Where a request carries the secret.
    enum class Secret {
        not_needed,  // none is needed
        in_query,    // ?token=: the answer gives the page its cookie
        carried,     // the page's cookie, or Authorization: Bearer
        missing,     // nowhere, or a wrong one
    };
    Secret secret(const std::string& token_parameter, const std::string& cookie_header,
                  const std::string& authorization_header) const;
    // The Set-Cookie value that gives a page the secret, same-site only.
    std::string cookie() const;

    const std::string& token() const { return token_; }

private:
    std::string listen_host_;
    std::string token_;
};

}  // namespace terminal
