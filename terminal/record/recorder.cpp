#include "record/recorder.h"

#include <algorithm>

namespace terminal {

namespace {

// Fields whose values depend on the moment of the run.
bool varies(const Json& field)
{
    return field.is_array() && !field.empty() && field[0] == "timestamp";
}

Json expect(Json expected)
{
    return Json{{lines::name_of(lines::Verb::expect), std::move(expected)}};
}

}  // namespace

Json expectation_for(const Json& line)
{
    switch (lines::kind_of(line)) {
        case lines::Kind::bus: {
            Json fields = Json::array();
            for (const Json& field : lines::fields_of(line)) {
                if (!varies(field))
                    fields.push_back(field);
            }
            return lines::bus_line(lines::subject(line), std::move(fields));
        }
        case lines::Kind::controller: return lines::controller_line(lines::subject(line));
        case lines::Kind::init_failed: return lines::init_failed_line(lines::subject(line));
        default: return nullptr;
    }
}

Recorder::Recorder(const std::string& path, Window& window, const std::string& config)
    : window_(window),
      file_(path,
            {"Recorded by catra-terminal --record: each command that ran, and after each",
             "action what the plug-in sent on the bus and wrote to the controller."},
            config)
{
}

void Recorder::start_up_over()
{
    std::lock_guard<std::mutex> lock(mutex_);
    write_expectations();
}

void Recorder::before_action()
{
    std::lock_guard<std::mutex> lock(mutex_);
    write_expectations();
    written_ = 0;  // the action starts a new stretch of output
}

void Recorder::ran(const Json& given)
{
    std::lock_guard<std::mutex> lock(mutex_);
    file_.write(given);
}

void Recorder::finish()
{
    std::lock_guard<std::mutex> lock(mutex_);
    write_expectations();
}

void Recorder::write_expectations()
{
    const Printed printed = window_.since_mark();
    for (std::size_t i = std::max(written_, printed.dropped);
         i < printed.dropped + printed.lines.size(); ++i) {
        Json expected = expectation_for(printed.lines[i - printed.dropped]);
        if (!expected.is_null())
            file_.write(expect(std::move(expected)));
    }
    written_ = std::max(written_, printed.dropped + printed.lines.size());
}

}  // namespace terminal
