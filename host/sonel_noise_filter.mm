// The filter object. Built with default symbol visibility (host/CMakeLists.txt): GCC's
// Objective-C emits a class's link symbol with the file's visibility and no attribute overrides
// it, so the file holds nothing else that must stay private.
#import "sonel_noise_filter.h"

#include <climits>
#include <new>

#import "bundle_resource.h"
#include "sonel_processor.h"

extern "C" {
double SonelNoiseFilterVersionNumber = SONEL_NOISE_FILTER_VERSION_NUMBER;
const unsigned char SonelNoiseFilterVersionString[] = SONEL_NOISE_FILTER_VERSION_STRING;
}

namespace {

// Class-wide state: whether the SDK is set up, read and written only under classLock. Every
// instance method takes classLock before its own lock, so the two never deadlock.
SonelUnfairLock classLock = SONEL_UNFAIR_LOCK_INIT;
bool sdkInitialized = false;

Sonel::SonelProcessor* processorOf(void* processor) { return static_cast<Sonel::SonelProcessor*>(processor); }

}  // namespace

@implementation SonelNoiseFilter

+ (BOOL)SonelGlobalInit {
    NSData* model = Sonel::copyBundleResource([SonelNoiseFilter class], @"c6.f.s.ced125", @"sw");
    if (model == nil) return NO;
    int result = -2;
    if ([model length] <= UINT_MAX)
        result = Sonel::SonelProcessor::SonelGlobalInitBlob([model bytes], static_cast<unsigned int>([model length]));
    [model release];
    if (result != 0) return NO;
    sonelUnfairLockLock(&classLock);
    sdkInitialized = true;
    sonelUnfairLockUnlock(&classLock);
    return YES;
}

+ (void)SonelGlobalDestroy {
    Sonel::SonelProcessor::SonelGlobalDestroy();
    sonelUnfairLockLock(&classLock);
    sdkInitialized = false;
    sonelUnfairLockUnlock(&classLock);
}

+ (BOOL)isBypassEnabled {
    return Sonel::SonelProcessor::GetBypassFlag() ? YES : NO;
}

+ (void)setIsBypassEnabled:(BOOL)enabled {
    Sonel::SonelProcessor::SetBypassFlag(enabled ? true : false);
}

- (id)init {
    self = [super init];
    if (self == nil) return nil;
    sonelUnfairLockInit(&_lock);
    _lastError = 0;
    _processor = new (std::nothrow) Sonel::SonelProcessor();
    if (_processor == nullptr) {
        [self release];
        return nil;
    }
    return self;
}

- (void)dealloc {
    delete processorOf(_processor);
    sonelUnfairLockDestroy(&_lock);
    [super dealloc];
}

- (NSInteger)lastError {
    sonelUnfairLockLock(&_lock);
    const NSInteger error = _lastError;
    sonelUnfairLockUnlock(&_lock);
    return error;
}

// Whether the SDK is set up, recording the refusal when not. Both locks are released before the
// caller goes on to the processor, which may take milliseconds (a session is made on a rate
// change) and must not hold up another filter's check.
- (BOOL)admitCall {
    sonelUnfairLockLock(&classLock);
    sonelUnfairLockLock(&_lock);
    const bool ready = sdkInitialized;
    if (!ready) _lastError = SonelNoiseFilterErrorNotInitialized;
    sonelUnfairLockUnlock(&_lock);
    sonelUnfairLockUnlock(&classLock);
    return ready ? YES : NO;
}

- (BOOL)initialize:(int)sampleRate numChannels:(int)numChannels {
    if (![self admitCall]) return NO;
    processorOf(_processor)->Initialize(sampleRate, numChannels);
    return YES;
}

- (BOOL)reset:(int)sampleRate {
    if (![self admitCall]) return NO;
    processorOf(_processor)->Reset(sampleRate);
    return YES;
}

- (BOOL)processWithBands:(int)bands frames:(int)frames bufferSize:(int)bufferSize buffer:(float*)buffer {
    if (![self admitCall]) return NO;
    processorOf(_processor)->Process(bands, frames, bufferSize, buffer);
    return YES;
}

@end
