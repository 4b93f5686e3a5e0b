#pragma once
// Subcommands of the `sonel` tool. Each receives the arguments after its own name and returns the
// process exit status; main.cpp lists them in one table, so a new subcommand is one entry there.
#include <string>
#include <vector>

namespace sonel_cli {

using Args = std::vector<std::string>;

struct Command {
    const char* name;
    const char* usage;  // one line per form, each starting with "sonel "
    int (*run)(const Args& args);
};

constexpr int kExitFailure = 1;  // the command was understood but could not be carried out
constexpr int kExitUsage = 2;    // the command line itself is wrong

// Prints "sonel: <message>" on standard error and returns `status`.
int reportError(const std::string& message, int status = kExitFailure);
// Prints "sonel: warning: <message>" on standard error; the command goes on.
void reportWarning(const std::string& message);

int runVersion(const Args& args);
int runModel(const Args& args);
int runDenoise(const Args& args);
int runVad(const Args& args);
int runNoiseLevel(const Args& args);
int runRingtone(const Args& args);

}  // namespace sonel_cli
