#include "lines/line.h"

#include <algorithm>

namespace lines {

namespace {

// The keys beside a kind's own.
const char* const kFields = "fields";
const char* const kTurned = "turned";
const char* const kFunction = "function";
const char* const kText = "text";
const char* const kReplied = "replied";
const char* const kRows = "rows";

// The labels of the lines that do not go by their kind's name.
const char* const kPlugin = "plug-in";
const char* const kTerminalSent = "terminal >";
const char* const kPluginSent = "plug-in  >";
const char* const kController = "controller";

// Labels take a column this wide.
constexpr std::size_t kLabelWidth = 10;

Json line_of(Kind kind, Json subject)
{
    Json line;
    line[name_of(kind)] = std::move(subject);
    return line;
}

// key=value for each [key, value] pair, values as JSON.
std::string pairs(const Json& fields)
{
    std::string text;
    for (const Json& field : fields) {
        if (!field.is_array() || field.size() != 2)
            continue;
        text += ' ';
        text += field[0].is_string() ? field[0].get<std::string>() : compact(field[0]);
        text += '=';
        text += compact(field[1]);
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
        text += compact(member.value());
    }
    return text;
}

std::string text_of(const Json& line, const std::string& key)
{
    const auto found = line.find(key);
    if (found == line.end())
        return "";
    return found->is_string() ? found->get<std::string>() : compact(*found);
}

std::string column(const std::string& label)
{
    std::string padded = label;
    padded.resize(std::max(padded.size(), kLabelWidth), ' ');
    return padded + ' ';
}

}  // namespace

std::string compact(const Json& value)
{
    return value.dump(-1, ' ', false, Json::error_handler_t::replace);
}

const std::vector<std::string>& kind_names()
{
    static const std::vector<std::string> names = {"note",       "init_failed", "sent",   "bus",
                                                   "controller", "turnstile",   "person", "log",
                                                   "reply",      "dump",        "other"};
    return names;
}

const std::string& name_of(Kind kind)
{
    return kind_names().at(static_cast<std::size_t>(kind));
}

Kind kind_of(const Json& line)
{
    const std::vector<std::string>& names = kind_names();
    if (line.is_object()) {
        for (std::size_t kind = 0; kind + 1 < names.size(); ++kind) {
            if (line.contains(names[kind]))
                return static_cast<Kind>(kind);
        }
    }
    return Kind::other;
}

Json note_line(const std::string& text)
{
    return line_of(Kind::note, text);
}

Json init_failed_line(const std::string& error)
{
    return line_of(Kind::init_failed, error);
}

Json sent_line(const std::string& type, Json fields)
{
    Json line = line_of(Kind::sent, type);
    line[kFields] = std::move(fields);
    return line;
}

Json bus_line(const std::string& type, Json fields)
{
    Json line = line_of(Kind::bus, type);
    line[kFields] = std::move(fields);
    return line;
}

Json controller_line(const std::string& text)
{
    return line_of(Kind::controller, text);
}

Json turnstile_line(char letter)
{
    return line_of(Kind::turnstile, std::string(1, letter));
}

Json person_line(simulator::Side side, bool turned)
{
    Json line = line_of(Kind::person, std::string(simulator::turn_name(side)));
    line[kTurned] = turned;
    return line;
}

Json log_line(const std::string& level, const std::optional<std::string>& function,
              const std::string& text)
{
    Json line = line_of(Kind::log, level);
    if (function)
        line[kFunction] = *function;
    line[kText] = text;
    return line;
}

Json reply_line(const std::string& type, bool replied, Json fields)
{
    Json line = line_of(Kind::reply, type);
    line[kReplied] = replied;
    line[kFields] = std::move(fields);
    return line;
}

Json dump_line(const std::string& what, Json rows)
{
    Json line = line_of(Kind::dump, what);
    line[kRows] = std::move(rows);
    return line;
}

std::string subject(const Json& line)
{
    const Kind kind = kind_of(line);
    return kind == Kind::other ? "" : text_of(line, name_of(kind));
}

Json fields_of(const Json& line)
{
    const Kind kind = kind_of(line);
    if (kind != Kind::sent && kind != Kind::bus && kind != Kind::reply)
        return Json::array();
    const Json fields = line.value(kFields, Json::array());
    return fields.is_array() ? fields : Json::array();
}

Json field_of(const Json& line, const std::string& key)
{
    for (const Json& field : fields_of(line)) {
        if (field.is_array() && field.size() == 2 && field[0] == key)
            return field[1];
    }
    return nullptr;
}

Told tell(const Json& line)
{
    const Kind kind = kind_of(line);
    const std::string& name = name_of(kind);
    const std::string said = subject(line);
    switch (kind) {
        case Kind::note: return {name, said, {}};
        case Kind::init_failed: return {kPlugin, "init failed: " + said, {}};
        case Kind::sent: return {kTerminalSent, said + pairs(fields_of(line)), {}};
        case Kind::bus: return {kPluginSent, said + pairs(fields_of(line)), {}};
        case Kind::controller: return {kController, "< " + said, {}};
        case Kind::turnstile:
            return {kController,
                    "> " + said + "  " +
                        std::string(simulator::event_name(said.empty() ? '\0' : said[0])),
                    {}};
        case Kind::person:
            return {name,
                    said + (line.value(kTurned, false) ? ": the turnstile turns"
                                                       : ": that side is locked, nothing turns"),
                    {}};
        case Kind::log: {
            const std::string function = text_of(line, kFunction);
            return {said, (function.empty() ? "" : function + ": ") + text_of(line, kText), {}};
        }
        case Kind::reply:
            return {name,
                    said + (line.value(kReplied, false) ? pairs(fields_of(line)) : ": not replied"),
                    {}};
        case Kind::dump: {
            const Json rows = line.value(kRows, Json::array());
            Told told{
                name,
                said + ": " + std::to_string(rows.size()) + (rows.size() == 1 ? " row" : " rows"),
                {}};
            for (const Json& row : rows)
                told.more.push_back(row.is_object() ? members(row) : compact(row));
            return told;
        }
        case Kind::other: break;
    }
    return {name, compact(line), {}};
}

std::string readable(const Json& line)
{
    if (!line.is_object() || line.empty())
        return compact(line);
    const Told told = tell(line);
    const Kind kind = kind_of(line);
    if (kind == Kind::note)
        return "\n== " + told.text;
    if (kind == Kind::other)
        return told.text;
    std::string text = column(told.label) + told.text;
    for (const std::string& more : told.more)
        text += "\n" + column("") + ' ' + more;
    return text;
}

}  // namespace lines
