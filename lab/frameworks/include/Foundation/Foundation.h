// GNUstep's Foundation with what macOS's has besides: the classes are there, their methods are not.

#pragma once

#include_next <Foundation/Foundation.h>

@interface NSAppleEventDescriptor (StandIn)

- (NSString *)stringValue;

@end

@interface NSAppleScript (StandIn)

- (instancetype)initWithSource:(NSString *)source;
- (NSAppleEventDescriptor *)executeAndReturnError:(NSDictionary **)errorInfo;

@end
