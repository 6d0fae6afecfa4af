# Compiler settings that every target of the project shares.
#
#   TALVEX_WARNINGS_AS_ERRORS   set by the presets; off in a plain build, so that
#                               a newer compiler's new warning stops no user
#   TALVEX_SANITIZERS           comma-separated, for example "address,undefined"
#
# A release is built with -O2 and link-time optimisation. The daemon waits most of its life, so small
# code that stays in the cache is worth more to it than what -O3 unrolls.

option(TALVEX_WARNINGS_AS_ERRORS "Treat compiler warnings as errors" OFF)
set(TALVEX_SANITIZERS "" CACHE STRING "Sanitizers to build with, comma-separated")

string(REPLACE "-O3" "-O2" CMAKE_CXX_FLAGS_RELEASE "${CMAKE_CXX_FLAGS_RELEASE}")
if(CMAKE_BUILD_TYPE STREQUAL "Release")
    include(CheckIPOSupported)
    check_ipo_supported(RESULT hasLinkTimeOptimisation OUTPUT reason LANGUAGES CXX)
    if(hasLinkTimeOptimisation)
        set(CMAKE_INTERPROCEDURAL_OPTIMIZATION ON)
    else()
        message(WARNING "Built without link-time optimisation: ${reason}")
    endif()
endif()

add_compile_definitions(
    QT_NO_CAST_FROM_ASCII
    QT_NO_CAST_TO_ASCII
    QT_NO_URL_CAST_FROM_STRING
    QT_NO_KEYWORDS
    QT_DEPRECATED_WARNINGS
    QT_DISABLE_DEPRECATED_BEFORE=0x050f00)

# Log lines are part of what the daemon shows, so a build type must not change them.
add_compile_options(-Wall -Wextra -Wpedantic -Wshadow -Wnon-virtual-dtor -Wold-style-cast
                    -Wunused -Woverloaded-virtual -Wconversion -Wformat=2)
if(TALVEX_WARNINGS_AS_ERRORS)
    add_compile_options(-Werror)
endif()

if(TALVEX_SANITIZERS)
    add_compile_options(-fsanitize=${TALVEX_SANITIZERS} -fno-sanitize-recover=all
                        -fno-omit-frame-pointer)
    add_link_options(-fsanitize=${TALVEX_SANITIZERS})
endif()

if(TALVEX_FUZZ)
    # The product itself must tell libFuzzer which ways it went.
    add_compile_options(-fsanitize=fuzzer-no-link)
endif()
