#include "recorder.h"

#include <algorithm>
#include <filesystem>
#include <stdexcept>

namespace terminal {

namespace {

// Fields whose values depend on the moment of the run.
bool varies(const Json& field)
{
    return field.is_array() && !field.empty() && field[0] == "timestamp";
}

}  // namespace

Json expectation_for(const Json& line)
{
    if (!line.is_object())
        return nullptr;
    if (line.contains("bus")) {
        Json fields = Json::array();
        for (const Json& field : line.value("fields", Json::array())) {
            if (!varies(field))
                fields.push_back(field);
        }
        return Json{{"bus", line["bus"]}, {"fields", fields}};
    }
    for (const char* key : {"controller", "init_failed"}) {
        if (line.contains(key))
            return Json{{key, line[key]}};
    }
    return nullptr;
}

Recorder::Recorder(const std::string& path, Window& window, const std::string& config)
    : window_(window), file_(path, std::ios::trunc)
{
    if (!file_)
        throw std::runtime_error(path + ": cannot be written");
    file_ << "# Recorded by catra-terminal --record: each command that ran, and after each\n"
             "# action what the plug-in sent on the bus and wrote to the controller.\n";
    if (!config.empty()) {
        // Relative to the recorded file, as --check reads it.
        namespace fs = std::filesystem;
        std::error_code failed;
        const fs::path folder = fs::absolute(path, failed).parent_path();
        const fs::path relative = fs::relative(fs::absolute(config, failed), folder, failed);
        file_ << "# config: " << (failed || relative.empty() ? config : relative.string()) << '\n';
    }
    file_.flush();
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

void Recorder::ran(const Json& command)
{
    std::lock_guard<std::mutex> lock(mutex_);
    write(command);
}

void Recorder::finish()
{
    std::lock_guard<std::mutex> lock(mutex_);
    write_expectations();
}

void Recorder::write_expectations()
{
    const std::vector<Json> lines = window_.since_mark();
    for (std::size_t i = written_; i < lines.size(); ++i) {
        Json expected = expectation_for(lines[i]);
        if (!expected.is_null())
            write(Json{{"expect", std::move(expected)}});
    }
    written_ = std::max(written_, lines.size());
}

void Recorder::write(const Json& line)
{
    file_ << line.dump(-1, ' ', false, Json::error_handler_t::replace) << '\n';
    file_.flush();
}

}  // namespace terminal
