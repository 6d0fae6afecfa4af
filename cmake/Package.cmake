# What a client's developer installs: "cmake --install BUILD --component development". A CMake project
# finds it with find_package(TalvexVpn); examples/CMakeLists.txt shows how.

include(CMakePackageConfigHelpers)
include(GNUInstallDirs)

set(libraries ipcrecords ipcreplicas vpncore)
set(components Core Network RemoteObjects)
if(TARGET vpncore_store)
    list(APPEND libraries vpncore_store)
    list(APPEND components Gui)
endif()
if(APPLE)
    list(APPEND libraries privileges)
endif()

foreach(library IN LISTS libraries)
    # The same name within the project.
    add_library(TalvexVpn::${library} ALIAS ${library})
    # What is optimised at link time only, no other compiler could link.
    if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
        target_compile_options(${library} PRIVATE -ffat-lto-objects)
    else()
        set_target_properties(${library} PROPERTIES INTERPROCEDURAL_OPTIMIZATION OFF)
    endif()
endforeach()

set(headers "${CMAKE_INSTALL_INCLUDEDIR}/talvexvpn")
set(package "${CMAKE_INSTALL_LIBDIR}/cmake/TalvexVpn")
install(TARGETS ${libraries} EXPORT TalvexVpn ARCHIVE COMPONENT development
        INCLUDES DESTINATION "${headers}")
install(EXPORT TalvexVpn NAMESPACE TalvexVpn:: FILE TalvexVpnTargets.cmake
        DESTINATION "${package}" COMPONENT development)
install(FILES
    ipc/records/ipcinterface.rep ipc/records/serviceinterface.rep
    ipc/records/ipcurls.h ipc/records/operationresult.h ipc/records/peeruser.h
    ipc/records/vpnserverinformation.h
    "${PROJECT_BINARY_DIR}/ipc/records/rep_ipcinterface_replica.h"
    "${PROJECT_BINARY_DIR}/ipc/records/rep_serviceinterface_replica.h"
    vpncore/dnsscripts.h vpncore/iplatform.h vpncore/macplatform.h
    privileges/popoverwindow.h
    DESTINATION "${headers}" COMPONENT development)

file(CONFIGURE OUTPUT TalvexVpnConfig.cmake @ONLY CONTENT [[
include(CMakeFindDependencyMacro)
find_dependency(Qt5 5.15 COMPONENTS @components@)
include("${CMAKE_CURRENT_LIST_DIR}/TalvexVpnTargets.cmake")
]])
write_basic_package_version_file(TalvexVpnConfigVersion.cmake COMPATIBILITY SameMinorVersion)
install(FILES "${PROJECT_BINARY_DIR}/TalvexVpnConfig.cmake"
              "${PROJECT_BINARY_DIR}/TalvexVpnConfigVersion.cmake"
        DESTINATION "${package}" COMPONENT development)
