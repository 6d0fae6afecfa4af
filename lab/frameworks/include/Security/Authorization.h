// Stand-in for the Authorization Services of macOS's Security framework: the declarations that this
// project uses, with the types, values and attributes that they have there.

#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>

typedef int32_t OSStatus;

struct AuthorizationOpaqueRef;
typedef const struct AuthorizationOpaqueRef *AuthorizationRef;

typedef uint32_t AuthorizationFlags;
enum : AuthorizationFlags {
    kAuthorizationFlagDefaults = 0,
    kAuthorizationFlagInteractionAllowed = 1 << 0,
    kAuthorizationFlagExtendRights = 1 << 1,
    kAuthorizationFlagDestroyRights = 1 << 3,
    kAuthorizationFlagPreAuthorize = 1 << 4
};

enum : OSStatus { errAuthorizationSuccess = 0, errAuthorizationInvalidRef = -60002 };

#pragma clang assume_nonnull begin

typedef struct
{
    const char *name;
    size_t valueLength;
    void *_Nullable value;
    uint32_t flags;
} AuthorizationItem;

typedef struct
{
    uint32_t count;
    AuthorizationItem *_Nullable items;
} AuthorizationItemSet;

typedef AuthorizationItemSet AuthorizationRights;
typedef AuthorizationItemSet AuthorizationEnvironment;

#define kAuthorizationEmptyEnvironment NULL

extern "C" {

OSStatus AuthorizationCreate(const AuthorizationRights *_Nullable rights,
                             const AuthorizationEnvironment *_Nullable environment,
                             AuthorizationFlags flags,
                             AuthorizationRef _Nullable *_Nullable authorization);

OSStatus AuthorizationFree(AuthorizationRef authorization, AuthorizationFlags flags);

OSStatus AuthorizationCopyRights(AuthorizationRef authorization, const AuthorizationRights *rights,
                                 const AuthorizationEnvironment *_Nullable environment,
                                 AuthorizationFlags flags,
                                 AuthorizationRights *_Nullable *_Nullable authorizedRights);

OSStatus AuthorizationExecuteWithPrivileges(AuthorizationRef authorization, const char *pathToTool,
                                            AuthorizationFlags options,
                                            char *_Nonnull const *_Nonnull arguments,
                                            FILE *_Nullable *_Nullable communicationsPipe)
    __attribute__((deprecated));

} // extern "C"

#pragma clang assume_nonnull end
