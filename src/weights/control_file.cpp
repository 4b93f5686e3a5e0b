#include "weights/control_file.h"

#include <fstream>

namespace SONEL::WEIGHTS {

namespace {
const char* const kBlanks = " \t\r\n\v\f";
}

bool parseControlFile(const std::string& path, ControlEntries& entries) {
    std::ifstream in(path);
    if (!in) return false;
    std::string line;
    while (std::getline(in, line)) {
        const size_t first = line.find_first_not_of(kBlanks);
        if (first == std::string::npos || line[first] == '#') continue;
        const size_t last = line.find_last_not_of(kBlanks);
        const std::string trimmed = line.substr(first, last - first + 1);
        const size_t keyEnd = trimmed.find_first_of(kBlanks);
        if (keyEnd == std::string::npos) break;  // a key without a value ends the file
        const size_t valueStart = trimmed.find_first_not_of(kBlanks, keyEnd);
        entries.emplace_back(trimmed.substr(0, keyEnd), trimmed.substr(valueStart));
    }
    return true;
}

std::string folderOf(const std::string& path) {
    const size_t slash = path.rfind('/');
    return slash == std::string::npos ? std::string() : path.substr(0, slash + 1);
}

}  // namespace SONEL::WEIGHTS
