// How libc++ is configured on macOS; the headers of ziglang come without this file of their own.

#pragma once

#define _LIBCPP_ABI_VERSION 1
#define _LIBCPP_ABI_NAMESPACE __1
#define _LIBCPP_HARDENING_MODE_DEFAULT 2
#define _LIBCPP_HAS_FILESYSTEM 1
#define _LIBCPP_HAS_LOCALIZATION 1
#define _LIBCPP_HAS_MONOTONIC_CLOCK 1
#define _LIBCPP_HAS_MUSL_LIBC 0
#define _LIBCPP_HAS_RANDOM_DEVICE 1
#define _LIBCPP_HAS_TERMINAL 1
#define _LIBCPP_HAS_THREADS 1
#define _LIBCPP_HAS_THREAD_API_C11 0
#define _LIBCPP_HAS_THREAD_API_EXTERNAL 0
#define _LIBCPP_HAS_THREAD_API_PTHREAD 1
#define _LIBCPP_HAS_THREAD_API_WIN32 0
#define _LIBCPP_HAS_TIME_ZONE_DATABASE 0
#define _LIBCPP_HAS_UNICODE 1
#define _LIBCPP_HAS_WIDE_CHARACTERS 1
#define _LIBCPP_PSTL_BACKEND_LIBDISPATCH

// What the libc++ of the oldest system lacks is not used; it would be an undefined symbol there.
#define _LIBCPP_HAS_VENDOR_AVAILABILITY_ANNOTATIONS 1
