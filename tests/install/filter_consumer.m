/* A plain Objective-C host built against an installed Sonel with the filter object: the installed
 * headers compile, the class and the version symbols link, and a filter refuses work before the
 * SDK is set up. Prints the version text. */
#import <sonel_noise_filter.h>
#include <stdio.h>

int main(void) {
    NSAutoreleasePool* pool = [[NSAutoreleasePool alloc] init];
    SonelNoiseFilter* filter = [[SonelNoiseFilter alloc] init];
    float block[480] = {0};
    const int refused = ![filter processWithBands:3 frames:480 bufferSize:480 buffer:block] &&
                        [filter lastError] == SonelNoiseFilterErrorNotInitialized;
    [pool drain];
    /* Not released: its dealloc would drop a reference to an SDK this program never set up. */
    if (!refused) return 1;
    printf("%s\n", (const char*)SonelNoiseFilterVersionString);
    return 0;
}
