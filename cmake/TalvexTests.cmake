# talvex_add_test(NAME <name> SOURCES <file>... [LIBRARIES <target>...]
#                 [PRIVATE_ROOT] [NEEDS tun|net...] [TIMEOUT <seconds>] [LABELS <label>...])
#
# Builds a Qt Test executable and registers each of its test functions as a CTest test of its own,
# "<name>.<function>", so that functions that wait for real time limits run side by side.
#
# The executable lies in a bundle of its own, <build>/tests/bundles/<name>/Contents/MacOS, with the
# stand-in for openvpn beside it and the tunnel's scripts in Contents/Resources: code that looks
# around from the executable's place finds there what it finds on a Mac.
#
# PRIVATE_ROOT runs it in a private root (tests/support/private-root) and labels it "private-root";
# NEEDS names what else the machine must provide. Where it does not, the test is reported as skipped, with the reason.
function(talvex_add_test)
    cmake_parse_arguments(ARG "PRIVATE_ROOT" "NAME;TIMEOUT" "SOURCES;LIBRARIES;NEEDS;LABELS" ${ARGN})
    if(ARG_UNPARSED_ARGUMENTS)
        message(FATAL_ERROR "talvex_add_test: unknown arguments: ${ARG_UNPARSED_ARGUMENTS}")
    endif()
    if(NOT ARG_TIMEOUT)
        set(ARG_TIMEOUT 60)
    endif()

    set(bundle "${PROJECT_BINARY_DIR}/tests/bundles/${ARG_NAME}/Contents")
    file(MAKE_DIRECTORY "${bundle}/MacOS")
    file(CREATE_LINK "${PROJECT_BINARY_DIR}/tests/standins/openvpn" "${bundle}/MacOS/openvpn" SYMBOLIC)
    file(CREATE_LINK "${PROJECT_SOURCE_DIR}/resources" "${bundle}/Resources" SYMBOLIC)

    add_executable(${ARG_NAME} ${ARG_SOURCES})
    set_target_properties(${ARG_NAME} PROPERTIES RUNTIME_OUTPUT_DIRECTORY "${bundle}/MacOS")
    target_link_libraries(${ARG_NAME} PRIVATE testsupport leaksuppressions ${ARG_LIBRARIES})
    target_precompile_headers(${ARG_NAME} REUSE_FROM testheaders)

    set(launcher)
    if(ARG_PRIVATE_ROOT OR ARG_NEEDS)
        set(launcher "${PROJECT_SOURCE_DIR}/tests/support/private-root" --needs root)
        foreach(need IN LISTS ARG_NEEDS)
            list(APPEND launcher --needs ${need})
        endforeach()
        list(APPEND launcher --bind "${PROJECT_BINARY_DIR}" --)
        list(APPEND ARG_LABELS private-root)
        # Only Linux makes private roots, so what runs in them may use what only Linux has.
        if(NOT CMAKE_SYSTEM_NAME STREQUAL "Linux")
            set_target_properties(${ARG_NAME} PROPERTIES EXCLUDE_FROM_ALL ON)
            return()
        endif()
    endif()

    set(testList "${CMAKE_CURRENT_BINARY_DIR}/${ARG_NAME}_tests.cmake")
    add_custom_command(
        TARGET ${ARG_NAME} POST_BUILD
        COMMAND "${CMAKE_COMMAND}"
                "-DNAME=${ARG_NAME}" "-DEXECUTABLE=$<TARGET_FILE:${ARG_NAME}>"
                "-DLAUNCHER=${launcher}" "-DLABELS=${ARG_LABELS}" "-DTIMEOUT=${ARG_TIMEOUT}"
                "-DOUTPUT=${testList}"
                -P "${PROJECT_SOURCE_DIR}/cmake/ListTestFunctions.cmake"
        BYPRODUCTS "${testList}"
        VERBATIM)
    set(guard "${CMAKE_CURRENT_BINARY_DIR}/${ARG_NAME}_guard.cmake")
    file(WRITE "${guard}"
        "if(EXISTS [==[${testList}]==])\n"
        "  include([==[${testList}]==])\n"
        "else()\n"
        "  add_test([==[${ARG_NAME}]==] [==[${ARG_NAME}-is-not-built]==])\n"
        "endif()\n")
    set_property(DIRECTORY APPEND PROPERTY TEST_INCLUDE_FILES "${guard}")
endfunction()
