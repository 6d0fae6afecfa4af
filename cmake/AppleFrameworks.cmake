# The target AppleFrameworks: Foundation and Security, for the Objective-C++ sources.
#
# On macOS these are the real ones. Elsewhere the same sources are built, for the tests, with clang
# against GNUstep's Foundation and the headers of tests/standins/frameworks, which have what GNUstep
# lacks. Where clang or GNUstep is missing there is no such target, and what needs it is not built.

if(APPLE)
    enable_language(OBJCXX)
    add_library(AppleFrameworks INTERFACE)
    target_link_libraries(AppleFrameworks INTERFACE "-framework Foundation" "-framework Security")
    return()
endif()

find_program(CLANGXX_EXECUTABLE NAMES clang++ clang++-14 clang++-15 clang++-16)
find_program(GNUSTEP_CONFIG_EXECUTABLE gnustep-config)
find_library(GNUSTEP_BASE_LIBRARY gnustep-base)
# libobjc's headers lie in a folder of GCC's own, where clang does not look.
execute_process(COMMAND gcc -print-file-name=include
                OUTPUT_VARIABLE gccIncludes OUTPUT_STRIP_TRAILING_WHITESPACE ERROR_QUIET)
find_path(OBJC_INCLUDE_DIR objc/objc.h PATHS "${gccIncludes}")
get_filename_component(gccFolder "${gccIncludes}" DIRECTORY)
find_library(OBJC_LIBRARY objc PATHS "${gccFolder}")

foreach(part IN ITEMS CLANGXX_EXECUTABLE GNUSTEP_CONFIG_EXECUTABLE GNUSTEP_BASE_LIBRARY
                      OBJC_INCLUDE_DIR OBJC_LIBRARY)
    if(NOT ${part})
        message(STATUS "No ${part}: the administrator privileges are not built "
                       "(needs clang and GNUstep Base with its headers)")
        return()
    endif()
endforeach()

if(NOT CMAKE_OBJCXX_COMPILER)
    set(CMAKE_OBJCXX_COMPILER "${CLANGXX_EXECUTABLE}")
endif()
enable_language(OBJCXX)

execute_process(COMMAND "${GNUSTEP_CONFIG_EXECUTABLE}" --objc-flags
                OUTPUT_VARIABLE gnustepFlags OUTPUT_STRIP_TRAILING_WHITESPACE)
separate_arguments(gnustepFlags UNIX_COMMAND "${gnustepFlags}")

# Of these flags, what the sources cannot do without; the rest are matters of taste.
set(gnustepIncludes ${gnustepFlags})
list(FILTER gnustepIncludes INCLUDE REGEX "^-I/")
list(TRANSFORM gnustepIncludes REPLACE "^-I" "")
set(gnustepOptions ${gnustepFlags})
list(FILTER gnustepOptions INCLUDE REGEX "^-(D|fconstant-string-class|fexceptions|fobjc-exceptions)")

add_library(AppleFrameworks INTERFACE)
# As a system's headers, like the real ones; GNUstep's own would not pass this project's warnings.
target_include_directories(AppleFrameworks SYSTEM INTERFACE
    $<$<COMPILE_LANGUAGE:OBJCXX>:${PROJECT_SOURCE_DIR}/tests/standins/frameworks>
    "$<$<COMPILE_LANGUAGE:OBJCXX>:${gnustepIncludes}>")
target_compile_options(AppleFrameworks INTERFACE
    "$<$<COMPILE_LANGUAGE:OBJCXX>:${gnustepOptions};-fobjc-runtime=gcc;SHELL:-idirafter ${OBJC_INCLUDE_DIR}>"
    # Debug information as valgrind 3.19 can read it; of clang's version 5 it cannot.
    $<$<COMPILE_LANGUAGE:OBJCXX>:-fdebug-default-version=4>)
target_link_libraries(AppleFrameworks INTERFACE "${GNUSTEP_BASE_LIBRARY}" "${OBJC_LIBRARY}")
