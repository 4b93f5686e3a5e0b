/*
 * Where the host layers' diagnostics go. Every line of the audio-processor bridge and the filter
 * object (each beginning "SONEL-CIT: ") goes to the system log at informational priority unless a
 * sink is installed here; a host can route them into its own log, and tests read them this way.
 */
#ifndef SONEL_HOST_LOG_H
#define SONEL_HOST_LOG_H

#include "sonel-audio-sdk.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Receives one complete line, without a trailing newline. Called on the thread that logged, the
 * audio thread included, so it must return quickly and must not call back into the library. */
typedef void (*SonelHostLogSink)(const char* line);

/* Installs `sink` (NULL: the system log again) and returns the one it replaces. */
SONEL_AUDIO_API SonelHostLogSink sonelAudioHostSetLogSink(SonelHostLogSink sink);

#ifdef __cplusplus
}
#endif

#endif /* SONEL_HOST_LOG_H */
