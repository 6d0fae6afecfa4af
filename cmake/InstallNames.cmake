# Has the programs and libraries of a bundle look for libraries in the bundle first.
#
# Homebrew's libraries have absolute install names, so that a program linked to them looks nowhere else,
# whatever its rpath. Here each name that is not macOS's becomes one below @rpath. Where the bundle has no
# such library, the folder it came from is a second place to look.
#
#   bundle                   the bundle's Contents
#   otool, installNameTool   Apple's tools, or LLVM's
#
# Run by "cmake --install"; run it again when libraries were added.

set(libraries "Frameworks/talvexvpnd")

function(talvex_look_in_bundle file isProgram)
    execute_process(COMMAND "${otool}" -L "${file}" OUTPUT_VARIABLE listing COMMAND_ERROR_IS_FATAL ANY)
    execute_process(COMMAND "${otool}" -l "${file}" OUTPUT_VARIABLE commands COMMAND_ERROR_IS_FATAL ANY)
    string(REGEX MATCHALL "\n[ \t]+/[^\n]* \\(compatibility" lines "${listing}")
    list(REMOVE_DUPLICATES lines) # of the architectures
    set(changes)
    set(folders "@executable_path/../${libraries}")
    foreach(line IN LISTS lines)
        string(REGEX REPLACE "^[ \t\n]+(/.*) \\(compatibility$" "\\1" library "${line}")
        if(library MATCHES "^/(usr/lib|System)/")
            continue()
        endif()
        string(REGEX MATCH "[^/]+[.]framework/.*$" name "${library}")
        if(NOT name)
            get_filename_component(name "${library}" NAME)
        endif()
        list(APPEND changes -change "${library}" "@rpath/${name}")
        if(NOT EXISTS "${bundle}/${libraries}/${name}")
            string(REPLACE "/${name}" "" folder "${library}")
            list(APPEND folders "${folder}")
        endif()
    endforeach()
    # The libraries follow the rpaths of the program that loads them; their own lead to the application's.
    if(NOT isProgram)
        string(REGEX MATCHALL " path @executable_path/[^\n]* \\(offset" paths "${commands}")
        list(REMOVE_DUPLICATES paths)
        foreach(path IN LISTS paths)
            string(REGEX REPLACE "^ path (.*) \\(offset$" "\\1" path "${path}")
            list(APPEND changes -delete_rpath "${path}")
        endforeach()
    elseif(changes)
        list(REMOVE_DUPLICATES folders)
        foreach(folder IN LISTS folders)
            string(FIND "${commands}" " path ${folder} (offset" position)
            if(position EQUAL -1)
                list(APPEND changes -add_rpath "${folder}")
            endif()
        endforeach()
    endif()
    if(NOT changes)
        return()
    endif()
    execute_process(COMMAND "${installNameTool}" ${changes} "${file}" COMMAND_ERROR_IS_FATAL ANY)
    # The change has broken a signature, without which Apple's processors start nothing.
    if(CMAKE_HOST_APPLE)
        execute_process(COMMAND codesign --force --sign - "${file}" COMMAND_ERROR_IS_FATAL ANY)
    endif()
endfunction()

foreach(program IN ITEMS talvexvpnd openvpn)
    if(EXISTS "${bundle}/MacOS/${program}")
        talvex_look_in_bundle("${bundle}/MacOS/${program}" TRUE)
    endif()
endforeach()
file(GLOB files "${bundle}/${libraries}/*.dylib" "${bundle}/${libraries}/*.framework/Versions/5/Qt*")
foreach(library IN LISTS files)
    talvex_look_in_bundle("${library}" FALSE)
endforeach()
