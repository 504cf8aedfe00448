#include "scenario/session_result.h"

#include <fstream>

#include <nlohmann/json.hpp>

namespace terminal {

namespace {

using Json = nlohmann::json;

// Member names, in the order written.
const char* const kExpectations = "expectations";
const char* const kMet = "met";
const char* const kBadLines = "bad_lines";
const char* const kInitFailed = "init_failed";
const char* const kPassed = "passed";
const char* const kReasons = "reasons";

}  // namespace

const std::vector<std::string>& session_result_keys()
{
    static const std::vector<std::string> keys = {kExpectations, kMet,    kBadLines,
                                                  kInitFailed,   kPassed, kReasons};
    return keys;
}

bool write_session_result(const std::string& path, const SessionResult& result)
{
    nlohmann::ordered_json json;
    json[kExpectations] = result.expectations;
    json[kMet] = result.met;
    json[kBadLines] = result.bad_lines;
    json[kInitFailed] = result.init_failed;
    json[kPassed] = result.passed;
    json[kReasons] = result.reasons;
    std::ofstream file(path, std::ios::trunc);
    file << json.dump(-1, ' ', false, Json::error_handler_t::replace) << '\n';
    return static_cast<bool>(file.flush());
}

std::optional<SessionResult> read_session_result(const std::string& path)
{
    std::ifstream file(path);
    const Json json = Json::parse(file, nullptr, false);
    if (!json.is_object())
        return std::nullopt;
    try {
        SessionResult result;
        result.expectations = json.at(kExpectations).get<int>();
        result.met = json.at(kMet).get<int>();
        result.bad_lines = json.at(kBadLines).get<int>();
        result.init_failed = json.at(kInitFailed).get<bool>();
        result.passed = json.at(kPassed).get<bool>();
        result.reasons = json.at(kReasons).get<std::vector<std::string>>();
        return result;
    } catch (const Json::exception&) {
        return std::nullopt;
    }
}

}  // namespace terminal
