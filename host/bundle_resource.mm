#import "bundle_resource.h"

namespace Sonel {

NSData* copyBundleResource(Class owner, NSString* name, NSString* type) {
    // The host may call in from a thread without an autorelease pool; the lookup's temporary
    // objects must not leak there.
    NSAutoreleasePool* pool = [[NSAutoreleasePool alloc] init];
    NSData* data = nil;
    @try {
        NSString* path = [[NSBundle bundleForClass:owner] pathForResource:name ofType:type];
        if (path != nil) data = [[NSData dataWithContentsOfFile:path] retain];
    } @catch (id exception) {
        data = nil;
    }
    [pool drain];
    return data;
}

}  // namespace Sonel
