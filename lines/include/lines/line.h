// The output line: what catra-terminal and catra-simulator print, one line
// per thing that happens, as a JSON object or as a short readable line. Each
// kind of line has one builder here, its key and its readable telling; every
// reader (the script's window, a recording, the live view and its page) reads
// lines through the functions here.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "simulator/protocol.h"

namespace lines {

using Json = nlohmann::ordered_json;

// A JSON value on one line. Texts from the plug-in or the controller line
// need not be valid UTF-8: invalid bytes become U+FFFD rather than failing.
std::string compact(const Json& value);

// The kinds of output line, in the order they are told apart: a line is of
// the first kind whose key it holds ({"bus": ...} is a bus line), else of the
// last, other.
enum class Kind {
    note,
    init_failed,
    sent,
    bus,
    controller,
    turnstile,
    person,
    log,
    reply,
    dump,
    other
};

// The kinds' names, in that order: each is the key of its kind's lines.
const std::vector<std::string>& kind_names();
const std::string& name_of(Kind kind);
Kind kind_of(const Json& line);

// ---------------------------------------------------------------- builders
// `fields` are a message's fields as [[key, value], ...], in order: ints as
// numbers, texts as strings.

// {"note": TEXT}: a script's note, standing out.
Json note_line(const std::string& text);
// {"init_failed": ERROR}: the plug-in's init failed with that text.
Json init_failed_line(const std::string& error);
// {"sent": TYPE, "fields": [...]}: a message the terminal itself sent.
Json sent_line(const std::string& type, Json fields);
// {"bus": TYPE, "fields": [...]}: a message the plug-in sent.
Json bus_line(const std::string& type, Json fields);
// {"controller": TEXT}: a command text the controller read, without its NUL.
Json controller_line(const std::string& text);
// {"turnstile": "f"}: a letter the controller reported.
Json turnstile_line(char letter);
// {"person": "turn_left", "turned": true}: a person pushed on that side, and
// whether the turnstile turned.
Json person_line(simulator::Side side, bool turned);
// {"log": LEVEL, "function": F, "text": T}: a line of the host's logs;
// "function" only for the lines that name one (the debug log's).
Json log_line(const std::string& level, const std::optional<std::string>& function,
              const std::string& text);
// {"reply": TYPE, "replied": B, "fields": [...]}: the reply to a request.
Json reply_line(const std::string& type, bool replied, Json fields);
// {"dump": WHAT, "rows": [...]}: records, each row an object of its columns.
Json dump_line(const std::string& what, Json rows);

// ---------------------------------------------------------------- readers
// What a line says under its kind's key, as text: the message type of a
// sent, bus or reply line, the text of a note or a controller line, the
// letter of a turnstile line, the level of a log line.
std::string subject(const Json& line);
// The fields of a sent, bus or reply line; an empty array for any other.
Json fields_of(const Json& line);
// The value of one field of a sent, bus or reply line; null when it has none.
Json field_of(const Json& line, const std::string& key);

// ---------------------------------------------------------------- telling
// An output line told for a person: its label (the source it came from, or a
// log line's level), what it says on one line, and the lines that follow
// (a dump's rows).
struct Told {
    std::string label;
    std::string text;
    std::vector<std::string> more;
};
Told tell(const Json& line);

// The readable form of an output line: its label in a column, then its text;
// a note stands out on a line of its own.
std::string readable(const Json& line);

}  // namespace lines
