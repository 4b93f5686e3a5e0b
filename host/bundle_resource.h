// The bundle-lookup shim: the filter object's model is a resource of the bundle holding its class.
// The same Foundation calls serve on macOS and on GNUstep; where that bundle is on disk differs
// (docs/design.md, "Host layers").
#pragma once

#import <Foundation/Foundation.h>

namespace Sonel {

// The whole file of resource `name`.`type` in the bundle that contains `owner`, or nil when there
// is no such bundle or resource or the file cannot be read. The caller releases the result.
// Raises nothing.
__attribute__((visibility("hidden"))) NSData* copyBundleResource(Class owner, NSString* name, NSString* type);

}  // namespace Sonel
