file(GLOB debianVersion /usr/lib/*/cmake/Qt5/Qt5ConfigVersion.cmake)
include(${debianVersion})
