#pragma once
// Control files ("cfg"): one "KEY value" entry per line, naming the weight file and tuning values.
#include <string>
#include <utility>
#include <vector>

namespace SONEL::WEIGHTS {

using ControlEntries = std::vector<std::pair<std::string, std::string>>;

// Entries in file order. Reading stops silently at the first line with a key but no value, so a
// half-edited file keeps only what precedes the mistake. False when the file cannot be opened.
bool parseControlFile(const std::string& path, ControlEntries& entries);

// The folder part of a path including its trailing "/", or "" when the path has none.
std::string folderOf(const std::string& path);

}  // namespace SONEL::WEIGHTS
