#include "utils/sonel_exception.h"

namespace SONEL::UTILS {

SonelException::SonelException(const std::string& message, const std::string& file, int line,
                               const std::string& function)
    : description_("Sonel_Exception in file " + file + " Line " + std::to_string(line) +
                   " Function " + function + "\n messege " + message),
      message_(message),
      location_(file + ":" + std::to_string(line) + " " + function) {}

}  // namespace SONEL::UTILS
