#include "script/matcher.h"

#include <algorithm>
#include <tuple>

namespace terminal {

// A pattern is a JSON value of a script line: the recursion is as deep as it is.
// NOLINTNEXTLINE(misc-no-recursion)
bool contains(const Json& line, const Json& pattern)
{
    if (pattern.is_object()) {
        if (!line.is_object())
            return false;
        for (const auto& member : pattern.items()) {
            const auto found = line.find(member.key());
            if (found == line.end() || !contains(*found, member.value()))
                return false;
        }
        return true;
    }
    if (pattern.is_array()) {
        if (!line.is_array())
            return false;
        for (const Json& wanted : pattern) {
            bool seen = false;
            for (const Json& element : line) {
                if (contains(element, wanted)) {
                    seen = true;
                    break;
                }
            }
            if (!seen)
                return false;
        }
        return true;
    }
    return line == pattern;
}

// NOLINTNEXTLINE(misc-no-recursion): as deep as the pattern, as contains()
int nearness(const Json& line, const Json& pattern)
{
    if (pattern.is_object()) {
        int score = 0;
        for (const auto& member : pattern.items()) {
            const auto found = line.is_object() ? line.find(member.key()) : line.end();
            if (line.is_object() && found != line.end())
                score += nearness(*found, member.value());
        }
        return score;
    }
    if (pattern.is_array()) {
        int score = 0;
        for (const Json& wanted : pattern) {
            int best = 0;
            if (line.is_array()) {
                for (const Json& element : line)
                    best = std::max(best, nearness(element, wanted));
            }
            score += best;
        }
        return score;
    }
    return line == pattern ? 1 : 0;
}

std::string nearest_lines(const std::vector<Json>& printed, const Json& pattern, std::size_t shown)
{
    if (printed.empty())
        return "; nothing was printed since the last action";
    const auto kind = pattern.begin();
    struct Ranked {
        bool same_kind;
        int nearness;
        const Json* line;
    };
    std::vector<Ranked> ranked;
    for (const Json& line : printed) {
        const auto found = line.is_object() ? line.find(kind.key()) : line.end();
        const bool same_kind = line.is_object() && found != line.end() && *found == kind.value();
        ranked.push_back({same_kind, nearness(line, pattern), &line});
    }
    std::stable_sort(ranked.begin(), ranked.end(), [](const Ranked& a, const Ranked& b) {
        return std::tie(a.same_kind, a.nearness) > std::tie(b.same_kind, b.nearness);
    });
    std::string text = "; the nearest of the " + std::to_string(printed.size()) +
                       (printed.size() == 1 ? " line" : " lines") +
                       " printed since the last action:";
    for (std::size_t i = 0; i < ranked.size() && i < shown; ++i)
        text += "\n    " + lines::compact(*ranked[i].line);
    if (ranked.size() > shown)
        text += "\n    (and " + std::to_string(ranked.size() - shown) + " more)";
    return text;
}

}  // namespace terminal
