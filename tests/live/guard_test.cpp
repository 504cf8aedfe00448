// Who may use the live view: the address it listens on, the secret's form,
// the Host and Origin a request names, and where it carries the secret.
#include <gtest/gtest.h>

#include "live/guard.h"

namespace {

using terminal::Guard;

TEST(Guard, AListenAddressIsAnIpLiteralOrLocalhostAndAPort)
{
    const std::string port = "the port must be a number from 0 to 65535, not ";
    const std::pair<const char*, std::string> rows[] = {
        {"8080", "127.0.0.1 8080"},
        {"0.0.0.0:65535", "0.0.0.0 65535"},
        {"[::1]:0", "::1 0"},
        {"nowhere:80", "\"nowhere\" is not an IP address or localhost"},
        {"[::1:80", "\"[::1\" is not an IP address or localhost"},
        {"65536", port + "\"65536\""},
        {"-1", port + "\"-1\""},
    };
    for (const auto& [text, wanted] : rows) {
        std::string error;
        const auto address = terminal::parse_listen_address(text, &error);
        EXPECT_EQ(address ? address->host + " " + std::to_string(address->port) : error, wanted);
        EXPECT_EQ(terminal::http_address_error(text), address ? "" : wanted);
    }
}

TEST(Guard, ASecretIsSixteenOrMorePlainCharactersAndANewOneIsOne)
{
    const std::string error = "the secret must be 16 or more letters, digits, '-', '_' or '.'";
    for (const std::string token : {"0123456789abcdef", "a-secret-of-the.bench_1"})
        EXPECT_EQ(terminal::http_token_error(token), "") << token;
    for (const std::string token :
         {"0123456789abcde", "", "0123456789 abcdef", "0123456789abcd\xc3\xa9"})
        EXPECT_EQ(terminal::http_token_error(token), error) << token;
    const std::string token = terminal::new_token();
    EXPECT_EQ(token.find_first_not_of("0123456789abcdef"), std::string::npos);
    EXPECT_EQ(token.size(), 32u);
    EXPECT_NE(token, terminal::new_token());
}

TEST(Guard, ARequestMustNameThisServerAndComeFromItsOwnPage)
{
    const struct {
        const char *listen, *host, *origin;  // origin null: none
        bool allowed;
    } rows[] = {
        {"127.0.0.1", "127.0.0.1:8080", "http://127.0.0.1:8080", true},
        {"127.0.0.1", "[::1]:8080", nullptr, true},
        {"127.0.0.1", "127.1.2.3", nullptr, true},
        {"127.0.0.1", "localhost.evil.example:8080", nullptr, false},
        {"127.0.0.1", ":8080", nullptr, false},
        {"127.0.0.1", "127.0.0.1:8080", "http://evil.example", false},
        {"127.0.0.1", "127.0.0.1:8080", "http://localhost:8080", false},
        {"0.0.0.0", "[2001:db8::1]:8080", nullptr, true},
        {"192.0.2.20", "192.0.2.20:8080", nullptr, true},
        {"192.0.2.20", "192.0.2.21:8080", nullptr, false},
    };
    for (const auto& row : rows) {
        const auto origin = row.origin ? std::optional<std::string>(row.origin) : std::nullopt;
        EXPECT_EQ(Guard(row.listen, "").allowed(row.host, origin), row.allowed) << row.host;
    }
}

TEST(Guard, TheSecretComesInTheQueryACookieOrABearer)
{
    const std::string secret = "0123456789abcdef", cookie = "catra_live_token=" + secret;
    const struct {
        std::string query, cookie, authorization;
        Guard::Secret where;
    } rows[] = {
        {"", "", "", Guard::Secret::missing},
        {secret, cookie, "", Guard::Secret::in_query},
        {secret + "0", "", "", Guard::Secret::missing},
        {"", "theme=dark; " + cookie, "", Guard::Secret::carried},
        {"", cookie.substr(1), "", Guard::Secret::missing},
        {"", "", "Bearer " + secret, Guard::Secret::carried},
        {"", "", "Basic " + secret, Guard::Secret::missing},
    };
    const Guard guard("0.0.0.0", secret);
    for (const auto& row : rows)
        EXPECT_EQ(guard.secret(row.query, row.cookie, row.authorization), row.where) << row.cookie;
    EXPECT_EQ(guard.cookie(), cookie + "; Path=/; HttpOnly; SameSite=Strict");
    EXPECT_EQ(Guard("127.0.0.1", "").secret("", "", ""), Guard::Secret::not_needed);
}

}  // namespace
