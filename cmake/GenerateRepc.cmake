# talvex_generate_repc(<output variable> <interface>.rep SOURCE|REPLICA)
#
# Runs Qt's repc and appends the generated header to the output variable; AUTOMOC
# does the rest. Unlike qt5_generate_repc it fixes the hash seed of repc: without
# that the two records are registered in an order that changes from run to run,
# and the build is not reproducible. With seed 0, OperationResult comes first.
function(talvex_generate_repc outputVariable interface kind)
    get_filename_component(absoluteInterface "${interface}" ABSOLUTE)
    get_filename_component(name "${interface}" NAME_WE)
    string(TOLOWER "${kind}" mode)
    set(header "${CMAKE_CURRENT_BINARY_DIR}/rep_${name}_${mode}.h")
    add_custom_command(
        OUTPUT "${header}"
        COMMAND "${CMAKE_COMMAND}" -E env QT_HASH_SEED=0
                "${Qt5RemoteObjects_REPC_EXECUTABLE}" -o ${mode} "${absoluteInterface}" "${header}"
        DEPENDS "${absoluteInterface}"
        COMMENT "Generating rep_${name}_${mode}.h"
        VERBATIM)
    set_property(SOURCE "${header}" PROPERTY GENERATED ON)
    set(${outputVariable} ${${outputVariable}} "${header}" PARENT_SCOPE)
endfunction()
