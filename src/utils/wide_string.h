#pragma once
// Wide paths arrive through the C interface; files are opened and models keyed by their UTF-8 form.
#include <string>

namespace SONEL::UTILS {

std::string toUtf8(const std::wstring& wide);
std::wstring fromUtf8(const std::string& utf8);

}  // namespace SONEL::UTILS
