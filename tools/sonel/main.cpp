#include <iostream>

#include "sonel/command.h"
#include "utils/sonel_exception.h"

namespace sonel_cli {

namespace {

constexpr Command kCommands[] = {
    {"version", "sonel version                   print the library version\n", runVersion},
    {"model",
     "sonel model info FILE           list the records of a weight file (.sw or .vlw)\n"
     "sonel model pack IN OUT.sw      write a weight file in enciphered form\n"
     "sonel model unpack IN OUT.vlw   write a weight file in plain form\n",
     runModel},
    {"denoise",
     "sonel denoise IN OUT [--model FILE] [--stats]\n"
     "                                clean a WAV or FLAC file (default: the embedded model)\n",
     runDenoise},
    {"vad",
     "sonel vad IN [--model FILE] [--threshold P] [--hangover MS] [--format segments|frames|json]\n"
     "                                speech segments or per-frame speech probabilities\n",
     runVad},
    {"noise-level",
     "sonel noise-level IN [--model FILE] [--format frames|json]\n"
     "                                background noise level in dBFS per 10 ms frame, or a summary\n",
     runNoiseLevel},
    {"ringtone",
     "sonel ringtone IN [--model FILE] [--threshold P] [--hangover MS] [--format segments|frames|json]\n"
     "                                segments with a phone ringing (or another alert tone), or\n"
     "                                per-frame ring probabilities\n",
     runRingtone},
};

void printUsage(std::ostream& out) {
    out << "usage:\n";
    for (const Command& command : kCommands) out << command.usage;
}

}  // namespace

int reportError(const std::string& message, int status) {
    std::cerr << "sonel: " << message << std::endl;
    return status;
}

void reportWarning(const std::string& message) {
    std::cerr << "sonel: warning: " << message << std::endl;
}

int runVersion(const Args& args) {
    if (!args.empty()) return reportError("version takes no arguments", kExitUsage);
    std::cout << SONEL_VERSION_STRING << "\n";
    return 0;
}

}  // namespace sonel_cli

int main(int argc, char** argv) {
    using namespace sonel_cli;
    const Args args(argv + 1, argv + argc);
    if (args.empty()) {
        printUsage(std::cout);
        return 0;
    }
    for (const Command& command : kCommands) {
        if (args[0] != command.name) continue;
        try {
            return command.run(Args(args.begin() + 1, args.end()));
        } catch (const SONEL::UTILS::SonelException& error) {
            return reportError(error.message());
        } catch (const std::exception& error) {
            return reportError(error.what());
        }
    }
    return reportError("unknown command '" + args[0] + "' (run 'sonel' for usage)", kExitUsage);
}
