#pragma once
// The host layers' one way to log: formats a line and hands it to the installed sink, the system
// log by default (sonel_host_log.h).

namespace Sonel {

// printf-style; the line is cut at 511 bytes. Formats on the stack, so it adds no allocation of
// its own to the audio thread (the system log may still take its own lock).
void hostLog(const char* format, ...) noexcept __attribute__((format(printf, 1, 2)));

}  // namespace Sonel
