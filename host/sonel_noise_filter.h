/*
 * SonelNoiseFilter: the noise-suppression module a host's audio pipeline holds, one per stream.
 *
 * Set-up for the whole process: +SonelGlobalInit reads the model resource "c6.f.s.ced125" of type
 * "sw" from the bundle that contains this class and registers it; every filter then refuses work
 * (NO, lastError SonelNoiseFilterErrorNotInitialized) until that has succeeded and again after
 * +SonelGlobalDestroy. Each filter's dealloc also drops one reference to the SDK, so a host calls
 * +SonelGlobalInit once per filter it makes.
 *
 * Per stream: -initialize:numChannels: once, then -processWithBands:frames:bufferSize:buffer: for
 * every 10 ms block (floats in the 16-bit range, bands of 160 samples, cleaned in place). Calls on
 * one filter must come from one thread at a time; different filters may run on different threads.
 *
 * The library is built with manual reference counting; a host may use either.
 */
#ifndef SONEL_NOISE_FILTER_H
#define SONEL_NOISE_FILTER_H

#import <Foundation/Foundation.h>

#include "sonel_unfair_lock.h"

#ifdef __cplusplus
#define SONEL_NOISE_FILTER_EXTERN extern "C" __attribute__((visibility("default")))
#else
#define SONEL_NOISE_FILTER_EXTERN extern __attribute__((visibility("default")))
#endif

/* The library's version, as a framework exports it: major.minor as a number, and the full
 * four-part version as text ("7.0.1.40"). */
SONEL_NOISE_FILTER_EXTERN double SonelNoiseFilterVersionNumber;
SONEL_NOISE_FILTER_EXTERN const unsigned char SonelNoiseFilterVersionString[];

/* -lastError after a call refused because the SDK is not initialised. */
enum { SonelNoiseFilterErrorNotInitialized = 7 };

@interface SonelNoiseFilter : NSObject {
@private
    void* _processor; /* Sonel::SonelProcessor, owned */
    NSInteger _lastError;
    SonelUnfairLock _lock; /* guards _lastError */
}

/* Process-wide set-up from the bundle's model resource: YES when the model is registered. */
+ (BOOL)SonelGlobalInit;
/* Drops one reference to the SDK; every filter refuses work until the next successful init. */
+ (void)SonelGlobalDestroy;
/* While enabled, every filter in the process passes audio through untouched. */
+ (BOOL)isBypassEnabled;
+ (void)setIsBypassEnabled:(BOOL)enabled;

- (id)init;
/* 0, or the reason the last refused call was refused. */
- (NSInteger)lastError;
/* NO (lastError 7) when the SDK is not initialised; otherwise YES once the processor was called. */
- (BOOL)initialize:(int)sampleRate numChannels:(int)numChannels;
- (BOOL)reset:(int)sampleRate;
- (BOOL)processWithBands:(int)bands frames:(int)frames bufferSize:(int)bufferSize buffer:(float*)buffer;

@end

#endif /* SONEL_NOISE_FILTER_H */
