// The host framework's exception type.
#pragma once

#include <exception>
#include <string>

namespace ac {

class ac_exception : public std::exception {
public:
    ac_exception(const std::string& text, bool flag);
    const char* what() const noexcept override;
    bool flag() const noexcept;

private:
    std::string text_;
    bool flag_;
};

}  // namespace ac
