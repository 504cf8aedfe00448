#include "output.h"

#include <algorithm>
#include <string>

namespace terminal {

namespace {

// Texts from the plug-in or the controller line need not be valid UTF-8:
// invalid bytes are printed as U+FFFD rather than failing the line.
std::string json_text(const Json& value)
{
    return value.dump(-1, ' ', false, Json::error_handler_t::replace);
}

// key=value for each [key, value] pair, values as JSON.
std::string pairs(const Json& fields)
{
    std::string text;
    for (const Json& field : fields) {
        if (!field.is_array() || field.size() != 2)
            continue;
        text += ' ';
        text += field[0].is_string() ? field[0].get<std::string>() : json_text(field[0]);
        text += '=';
        text += json_text(field[1]);
    }
    return text;
}

// key=value for each member of an object.
std::string members(const Json& object)
{
    std::string text;
    for (const auto& member : object.items()) {
        text += ' ';
        text += member.key();
        text += '=';
        text += json_text(member.value());
    }
    return text;
}

std::string text_of(const Json& line, const char* key)
{
    const auto found = line.find(key);
    if (found == line.end())
        return "";
    return found->is_string() ? found->get<std::string>() : json_text(*found);
}

std::string column(const std::string& source)
{
    std::string padded = source;
    padded.resize(std::max<std::size_t>(padded.size(), 10), ' ');
    return padded + ' ';
}

}  // namespace

Output::Output(std::FILE* stream, Style style)
    : stream_(stream), style_(style), last_(std::chrono::steady_clock::now())
{
}

void Output::emit(const Json& line)
{
    std::lock_guard<std::mutex> lock(mutex_);
    print(line);
    last_ = std::chrono::steady_clock::now();
    for (const auto& subscriber : subscribers_)
        subscriber.second(line);
}

int Output::subscribe(std::function<void(const Json&)> subscriber)
{
    std::lock_guard<std::mutex> lock(mutex_);
    subscribers_.emplace(next_subscriber_, std::move(subscriber));
    return next_subscriber_++;
}

void Output::unsubscribe(int id)
{
    std::lock_guard<std::mutex> lock(mutex_);
    subscribers_.erase(id);
}

std::chrono::steady_clock::duration Output::quiet_time() const
{
    std::lock_guard<std::mutex> lock(mutex_);
    return std::chrono::steady_clock::now() - last_;
}

void Output::print(const Json& line)
{
    const std::string text = style_ == Style::json ? json_text(line) : readable(line);
    std::fputs(text.c_str(), stream_);
    std::fputc('\n', stream_);
    std::fflush(stream_);
}

const std::vector<std::string>& line_kinds()
{
    static const std::vector<std::string> kinds = {"note",       "init_failed", "sent",   "bus",
                                                   "controller", "turnstile",   "person", "log",
                                                   "reply",      "dump",        "other"};
    return kinds;
}

std::string kind_of(const Json& line)
{
    const std::vector<std::string>& kinds = line_kinds();
    if (line.is_object()) {
        for (auto kind = kinds.begin(); kind + 1 != kinds.end(); ++kind) {
            if (line.contains(*kind))
                return *kind;
        }
    }
    return kinds.back();
}

Told tell(const Json& line)
{
    const std::string kind = kind_of(line);
    const auto fields = [&line] { return pairs(line.value("fields", Json())); };
    if (kind == "note")
        return {kind, text_of(line, "note"), {}};
    if (kind == "init_failed")
        return {"plug-in", "init failed: " + text_of(line, "init_failed"), {}};
    if (kind == "sent")
        return {"terminal >", text_of(line, "sent") + fields(), {}};
    if (kind == "bus")
        return {"plug-in  >", text_of(line, "bus") + fields(), {}};
    if (kind == "controller")
        return {"controller", "< " + text_of(line, "controller"), {}};
    if (kind == "turnstile") {
        const std::string letter = text_of(line, "turnstile");
        return {
            "controller", "> " + letter + "  " + event_name(letter.empty() ? '\0' : letter[0]), {}};
    }
    if (kind == "person") {
        const bool turned = line.value("turned", false);
        return {kind,
                text_of(line, "person") +
                    (turned ? ": the turnstile turns" : ": that side is locked, nothing turns"),
                {}};
    }
    if (kind == "log") {
        const std::string function = text_of(line, "function");
        return {text_of(line, "log"),
                (function.empty() ? "" : function + ": ") + text_of(line, "text"),
                {}};
    }
    if (kind == "reply") {
        const bool replied = line.value("replied", false);
        return {kind, text_of(line, "reply") + (replied ? fields() : ": not replied"), {}};
    }
    if (kind == "dump") {
        const Json rows = line.value("rows", Json::array());
        Told told{kind,
                  text_of(line, "dump") + ": " + std::to_string(rows.size()) +
                      (rows.size() == 1 ? " row" : " rows"),
                  {}};
        for (const Json& row : rows)
            told.more.push_back(row.is_object() ? members(row) : json_text(row));
        return told;
    }
    return {kind, json_text(line), {}};
}

std::string readable(const Json& line)
{
    if (!line.is_object() || line.empty())
        return json_text(line);
    const Told told = tell(line);
    if (kind_of(line) == "note")
        return "\n== " + told.text;
    if (kind_of(line) == "other")
        return told.text;
    std::string text = column(told.label) + told.text;
    for (const std::string& more : told.more)
        text += "\n" + column("") + ' ' + more;
    return text;
}

std::string event_name(char letter)
{
    static const char* const names[] = {
        "ALWAYS BLOCKED", "ALWAYS FREE LEFT", "ALWAYS FREE RIGHT", "ALWAYS FREE BOTH", "FREE LEFT",
        "FREE RIGHT",     "FREE BOTH",        "TURN LEFT",         "TURN RIGHT",       "GIVE UP",
        "BLOCKED",        "EVENT_READY",      "EVENT_NOT_READY"};
    if (letter < 'a' || letter > 'm')
        return "UNKNOWN EVENT";
    return names[letter - 'a'];
}

}  // namespace terminal
