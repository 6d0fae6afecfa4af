# Debian's Qt with its headers and generators, and Qt's frameworks for macOS to link with.

file(GLOB debianConfig /usr/lib/*/cmake/Qt5/Qt5Config.cmake)
include(${debianConfig})

foreach(component IN ITEMS Core Network RemoteObjects)
    set(framework Qt${component}.framework)
    set_target_properties(Qt5::${component} PROPERTIES
        FRAMEWORK ON
        IMPORTED_SONAME_RELEASE "@rpath/${framework}/Versions/5/Qt${component}"
        IMPORTED_LOCATION_RELEASE "${TALVEX_MACOS_PARTS}/Frameworks/${framework}/Qt${component}")
endforeach()

# CMake asks the machine that it runs on whether macOS knows rpaths, and takes no answer for a no.
set(CMAKE_SHARED_LIBRARY_RUNTIME_C_FLAG "-Wl,-rpath,")
set(CMAKE_EXECUTABLE_RUNTIME_CXX_FLAG "-Wl,-rpath,")
