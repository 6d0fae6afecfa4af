// Stand-in for macOS's Foundation where Apple's headers are not at hand: the few declarations that
// this project uses, as the documentation has them. What compiles with it has valid syntax and
// fitting types; more it does not show.

#pragma once

#include <objc/NSObject.h>

#pragma clang assume_nonnull begin

@interface NSString : NSObject
+ (nullable instancetype)stringWithUTF8String:(const char *)nullTerminatedCString;
@property(nullable, readonly) const char *UTF8String;
@end

@interface NSDictionary<KeyType, ObjectType> : NSObject
+ (instancetype)dictionary;
@end

@interface NSAppleEventDescriptor : NSObject
@property(nullable, readonly, copy) NSString *stringValue;
@end

@interface NSAppleScript : NSObject
- (nullable instancetype)initWithSource:(NSString *)source;
- (NSAppleEventDescriptor *)executeAndReturnError:
    (NSDictionary<NSString *, id> *_Nullable *_Nullable)errorInfo;
@end

extern "C" void NSLog(NSString *format, ...) __attribute__((format(__NSString__, 1, 2)));

#pragma clang assume_nonnull end
