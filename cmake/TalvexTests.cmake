# Optimising tests gains nothing. And they say "text" where the product says QStringLiteral("text"), which
# costs less when it runs.
set(talvexTestOptions -O0 -g1 -UQT_NO_CAST_FROM_ASCII)

set(TALVEX_TEST_TIMEOUT 60 CACHE STRING "After how many seconds most tests are taken to hang")

# talvex_add_test(<name> SOURCES <file>... [LIBRARIES <target>...]
#                 [PRIVATE_ROOT] [NEEDS tun|net...] [TIMEOUT <seconds>] [LABELS <label>...])
#
# Builds a Qt Test program and registers it as the CTest test <name>. In a folder that sets
# talvexTier it has that as a label, too.
#
# The program lies in a bundle of its own, <build>/tests/bundles/<name>/Contents/MacOS, with the
# stand-in for openvpn beside it and the tunnel's scripts in Contents/Resources: code that looks
# around from the executable's place finds there what it finds on a Mac.
#
# PRIVATE_ROOT runs it in a private root (lab/private-root), labels it "private-root", and makes it
# refuse to run anywhere else; NEEDS names what else the machine must provide. Where it does not, the
# test is reported as skipped, with the reason.
function(talvex_add_test name)
    cmake_parse_arguments(ARG "PRIVATE_ROOT" "TIMEOUT" "SOURCES;LIBRARIES;NEEDS;LABELS" ${ARGN})
    if(ARG_UNPARSED_ARGUMENTS)
        message(FATAL_ERROR "talvex_add_test: unknown arguments: ${ARG_UNPARSED_ARGUMENTS}")
    endif()
    if(NOT ARG_TIMEOUT)
        set(ARG_TIMEOUT "${TALVEX_TEST_TIMEOUT}")
    endif()

    set(bundle "${PROJECT_BINARY_DIR}/tests/bundles/${name}/Contents")
    file(MAKE_DIRECTORY "${bundle}/MacOS")
    file(CREATE_LINK "${PROJECT_SOURCE_DIR}/lab/standins/openvpn" "${bundle}/MacOS/openvpn" SYMBOLIC)
    file(CREATE_LINK "${PROJECT_SOURCE_DIR}/resources" "${bundle}/Resources" SYMBOLIC)

    list(APPEND ARG_LABELS ${talvexTier})
    add_executable(${name} ${ARG_SOURCES})
    set_target_properties(${name} PROPERTIES RUNTIME_OUTPUT_DIRECTORY "${bundle}/MacOS" AUTOMOC OFF)
    # One call of moc instead of AUTOMOC, which compiles an empty file more for each program.
    set(mocFolder "${CMAKE_CURRENT_BINARY_DIR}/${name}.moc")
    file(MAKE_DIRECTORY "${mocFolder}")
    foreach(source IN LISTS ARG_SOURCES)
        get_filename_component(stem "${source}" NAME_WE)
        get_filename_component(path "${source}" ABSOLUTE)
        add_custom_command(OUTPUT "${mocFolder}/${stem}.moc" DEPENDS "${path}" VERBATIM
                           COMMAND Qt5::moc -o "${mocFolder}/${stem}.moc" "${path}")
        target_sources(${name} PRIVATE "${mocFolder}/${stem}.moc")
    endforeach()
    target_include_directories(${name} PRIVATE "${mocFolder}")
    target_link_libraries(${name} PRIVATE lab leaksuppressions ${ARG_LIBRARIES})
    target_compile_options(${name} PRIVATE ${talvexTestOptions})
    target_precompile_headers(${name} REUSE_FROM testheaders)

    set(launcher)
    if(ARG_PRIVATE_ROOT OR ARG_NEEDS)
        target_link_libraries(${name} PRIVATE privaterootonly)
        set(launcher "${PROJECT_SOURCE_DIR}/lab/private-root" --needs root)
        foreach(need IN LISTS ARG_NEEDS)
            list(APPEND launcher --needs ${need})
        endforeach()
        list(APPEND launcher --bind "${PROJECT_BINARY_DIR}" --)
        list(APPEND ARG_LABELS private-root)
        # Only Linux makes private roots, so what runs in them may use what only Linux has.
        if(NOT CMAKE_SYSTEM_NAME STREQUAL "Linux")
            set_target_properties(${name} PROPERTIES EXCLUDE_FROM_ALL ON)
            return()
        endif()
    endif()

    add_test(NAME ${name} COMMAND ${launcher} "$<TARGET_FILE:${name}>")
    # One that may take long starts early, so that it does not run on alone at the end.
    set_tests_properties(${name} PROPERTIES
        SKIP_RETURN_CODE 77 TIMEOUT ${ARG_TIMEOUT} COST ${ARG_TIMEOUT} LABELS "${ARG_LABELS}"
        # macOS has no GLib dispatcher.
        ENVIRONMENT QT_NO_GLIB=1)
endfunction()
