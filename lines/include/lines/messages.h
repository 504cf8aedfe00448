// What a program says to the person who runs it, apart from its output
// lines: one line each on standard error, after the program's name
// ("catra-terminal: the live view is at http://127.0.0.1:8080/").
#pragma once

#include <iosfwd>
#include <mutex>
#include <string>

namespace lines {

class Messages {
public:
    explicit Messages(std::string program);
    // On another stream than standard error.
    Messages(std::string program, std::ostream& stream);

    // One line, whole and flushed. Thread-safe.
    void say(const std::string& text) const;

    const std::string& program() const { return program_; }

private:
    std::string program_;
    std::ostream& stream_;
    mutable std::mutex mutex_;
};

}  // namespace lines
