/*
 * SonelNoiseFilter as a host uses it: plain Objective-C against the shared library, reading the
 * model from the real bundle folder the build makes for this program. The program takes the
 * resource away and spoils it to see init refuse, then puts the shipped model (argv[1]) back. What
 * is checked is what a host notices: the return values, lastError, the buffer and the log lines.
 */
#import <Foundation/Foundation.h>

#include <math.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#import "sonel_host_log.h"
#import "sonel_noise_filter.h"

static int failures = 0;
#define CHECK(condition)                                                                  \
    do {                                                                                  \
        if (!(condition)) {                                                               \
            fprintf(stderr, "%s:%d: check failed: %s\n", __FILE__, __LINE__, #condition); \
            ++failures;                                                                   \
        }                                                                                 \
    } while (0)

enum { kMaxLines = 32, kBands = 3, kFrames = 480 };

static char loggedLines[kMaxLines][512];
static int lineCount = 0;

static void captureLine(const char* line) {
    if (lineCount < kMaxLines) snprintf(loggedLines[lineCount], sizeof loggedLines[0], "%s", line);
    ++lineCount;
}

/* Whether the lines logged since the last call are exactly `expected` (NULL-terminated). */
static int loggedExactly(const char* const* expected) {
    int count = 0, same = 1;
    while (expected[count] != NULL) ++count;
    if (count != lineCount) same = 0;
    for (int i = 0; same && i < count; ++i) same = strcmp(loggedLines[i], expected[i]) == 0;
    if (!same) {
        fprintf(stderr, "logged %d line(s):\n", lineCount);
        for (int i = 0; i < lineCount && i < kMaxLines; ++i) fprintf(stderr, "  \"%s\"\n", loggedLines[i]);
    }
    lineCount = 0;
    return same;
}
static const char* const kNothing[] = {NULL};

/* One 10 ms block at 48 kHz in the 16-bit range: noise with a tone. */
static void fillBlock(float* block, unsigned* seed) {
    for (int i = 0; i < kFrames; ++i) {
        *seed = *seed * 1664525u + 1013904223u;
        block[i] = (float)((int)(*seed >> 16) - 32768) / 16.0f + 5000.0f * (float)sin(i * 0.0576);
    }
}

/* Where +SonelGlobalInit looks: the bundle that holds the class, which is this program's (the
 * library carries no resources of its own in the build tree). The build puts the shipped model
 * there; the bundle folder must exist before the first lookup, as GNUstep does not look again for a
 * folder it found missing. */
static NSString* resourcePath(void) {
    NSBundle* bundle = [NSBundle bundleForClass:[SonelNoiseFilter class]];
    return [[bundle resourcePath] stringByAppendingPathComponent:@"c6.f.s.ced125.sw"];
}

/* A refused call: NO, lastError 7, the buffer as it was, and nothing logged (the processor is
 * never reached). */
static void checkRefused(SonelNoiseFilter* filter) {
    float block[kFrames], before[kFrames];
    unsigned seed = 1;
    fillBlock(block, &seed);
    memcpy(before, block, sizeof block);
    CHECK(![filter processWithBands:kBands frames:kFrames bufferSize:kFrames buffer:block]);
    CHECK([filter lastError] == SonelNoiseFilterErrorNotInitialized);
    CHECK(memcmp(block, before, sizeof block) == 0);
    CHECK(![filter initialize:48000 numChannels:1]);
    CHECK(![filter reset:48000]);
    CHECK([filter lastError] == 7);
    CHECK(loggedExactly(kNothing));
}

int main(int argc, char** argv) {
    if (argc != 2) {
        fprintf(stderr, "usage: sonel_filter_test MODEL.sw\n");
        return 2;
    }
    NSAutoreleasePool* pool = [[NSAutoreleasePool alloc] init];
    sonelAudioHostSetLogSink(captureLine);
    NSData* model = [NSData dataWithContentsOfFile:[NSString stringWithUTF8String:argv[1]]];
    CHECK(model != nil && [model length] > 1000);

    CHECK([[NSFileManager defaultManager] fileExistsAtPath:resourcePath()]);

    SonelNoiseFilter* filter = [[SonelNoiseFilter alloc] init];
    CHECK([filter lastError] == 0);
    checkRefused(filter);

    /* No resource, then a spoilt one: init fails and the filter keeps refusing. The spoilt model
     * got as far as the SDK, whose reference is dropped again. */
    [[NSFileManager defaultManager] removeItemAtPath:resourcePath() error:NULL];
    CHECK(![SonelNoiseFilter SonelGlobalInit]);
    CHECK(loggedExactly(kNothing));
    checkRefused(filter);
    NSMutableData* spoilt = [[model mutableCopy] autorelease];
    ((unsigned char*)[spoilt mutableBytes])[0] ^= 0x55; /* not a weight file's header */
    CHECK([spoilt writeToFile:resourcePath() atomically:YES]);
    CHECK(![SonelNoiseFilter SonelGlobalInit]);
    const char* const refused[] = {"SONEL-CIT: Sonel failed to set wt file", NULL};
    CHECK(loggedExactly(refused));
    checkRefused(filter);
    [SonelNoiseFilter SonelGlobalDestroy];

    /* The real model: the blob path of global init. */
    CHECK([model writeToFile:resourcePath() atomically:YES]);
    CHECK([SonelNoiseFilter SonelGlobalInit]);
    const char* const initialized[] = {"SONEL-CIT: Sonel initialized", NULL};
    CHECK(loggedExactly(initialized));
    CHECK([filter initialize:48000 numChannels:1]);
    const char* const started[] = {"SONEL-CIT: SonelProcessor Init sample_rate_hz: 48000             num_channels: 1",
                                   NULL};
    CHECK(loggedExactly(started));

    /* Cleaned in place; with the bypass on, handed back untouched (and no rate change although
     * 2205 frames would be one), each block saying so in the log. */
    float block[kFrames], before[kFrames];
    unsigned seed = 5;
    for (int b = 0; b < 10; ++b) {
        fillBlock(block, &seed);
        memcpy(before, block, sizeof block);
        CHECK([filter processWithBands:kBands frames:kFrames bufferSize:kFrames buffer:block]);
        CHECK(memcmp(block, before, sizeof block) != 0 && isfinite(block[0]));
    }
    CHECK(loggedExactly(kNothing));
    [SonelNoiseFilter setIsBypassEnabled:YES];
    CHECK([SonelNoiseFilter isBypassEnabled]);
    memcpy(before, block, sizeof block);
    CHECK([filter processWithBands:kBands frames:2205 bufferSize:kFrames buffer:block]);
    CHECK(memcmp(block, before, sizeof block) == 0);
    const char* const bypassed[] = {"SONEL-CIT: Bypassing NoiseSuppressor::Process", NULL};
    CHECK(loggedExactly(bypassed));
    [SonelNoiseFilter setIsBypassEnabled:NO];

    /* After global destroy the same filter refuses again. */
    [SonelNoiseFilter SonelGlobalDestroy];
    checkRefused(filter);
    [filter release];
    const char* const released[] = {"SONEL-CIT: Sonel Global Destroy", NULL};
    CHECK(loggedExactly(released));

    /* The version symbols come out of the library as a framework exports them. */
    char expectedNumber[32];
    snprintf(expectedNumber, sizeof expectedNumber, "%d.%d", SONEL_VERSION_MAJOR, SONEL_VERSION_MINOR);
    CHECK(SonelNoiseFilterVersionNumber == atof(expectedNumber));
    CHECK(strcmp((const char*)SonelNoiseFilterVersionString, SONEL_VERSION) == 0);

    sonelAudioHostSetLogSink(NULL);
    [pool drain];
    if (failures == 0) printf("filter object: all checks passed\n");
    return failures == 0 ? 0 : 1;
}
