// The logging shim: syslog at LOG_INFO on every platform (on macOS it lands in the unified log),
// behind a replaceable sink.
#include "host_log.h"

#include <syslog.h>

#include <atomic>
#include <cstdarg>
#include <cstdio>

#include "sonel_host_log.h"

namespace Sonel {
namespace {

void systemLogSink(const char* line) { syslog(LOG_INFO, "%s", line); }

// Read on every logged line, possibly from several audio threads while a host swaps it.
std::atomic<SonelHostLogSink> installedSink{systemLogSink};

}  // namespace

void hostLog(const char* format, ...) noexcept {
    char line[512];
    va_list args;
    va_start(args, format);
    std::vsnprintf(line, sizeof line, format, args);
    va_end(args);
    installedSink.load(std::memory_order_acquire)(line);
}

}  // namespace Sonel

extern "C" SonelHostLogSink sonelAudioHostSetLogSink(SonelHostLogSink sink) {
    return Sonel::installedSink.exchange(sink ? sink : Sonel::systemLogSink, std::memory_order_acq_rel);
}
