#pragma once
// The one exception type the library throws. Its text names the throwing unit, line and function
// so a log line from a host leads straight to the failing check.
#include <exception>
#include <string>

#include "utils/export.h"

namespace SONEL::UTILS {

class SONEL_EXPORT SonelException : public std::exception {
public:
    SonelException(const std::string& message, const std::string& file, int line,
                   const std::string& function);
    const char* what() const noexcept override { return description_.c_str(); }
    const std::string& message() const { return message_; }

private:
    std::string description_;
    std::string message_;
    std::string location_;
};

}  // namespace SONEL::UTILS
