#include "lines/messages.h"

#include <iostream>

namespace lines {

Messages::Messages(std::string program) : Messages(std::move(program), std::cerr) {}

Messages::Messages(std::string program, std::ostream& stream)
    : program_(std::move(program)), stream_(stream)
{
}

void Messages::say(const std::string& text) const
{
    std::lock_guard<std::mutex> lock(mutex_);
    stream_ << program_ << ": " << text << std::endl;
}

}  // namespace lines
