# Builds for macOS on Debian, for both architectures at once. scripts/build-macos lays out the folder
# TALVEX_MACOS_PARTS: the compiler (packages/zig), an SDK (sdk) and Qt's frameworks (Frameworks).

set(TALVEX_MACOS_PARTS "" CACHE PATH "What scripts/build-macos has laid out")
set(CMAKE_TRY_COMPILE_PLATFORM_VARIABLES TALVEX_MACOS_PARTS)

set(CMAKE_SYSTEM_NAME Darwin)
set(CMAKE_OSX_SYSROOT "${TALVEX_MACOS_PARTS}/sdk")

# The clang inside zig fits zig's headers; Debian's linker and tools do the rest.
set(zig "${TALVEX_MACOS_PARTS}/packages/zig/ziglang")
set(llvm /usr/lib/llvm-14/bin)
foreach(language IN ITEMS CXX OBJCXX)
    set(CMAKE_${language}_COMPILER "${zig}/zig" clang --driver-mode=g++)
    # The compiler takes 11.0 for the oldest system on Apple's processors, as Qt does.
    set(CMAKE_${language}_COMPILER_TARGET x86_64-apple-macosx)
    # A call of what the oldest system lacks is an error; the headers say since when there is what.
    # Apple's compiler has used no operator delete with a size either, so Qt does not show that it is there.
    set(CMAKE_${language}_FLAGS_INIT "-resource-dir=${zig}/lib \
-include ${CMAKE_CURRENT_LIST_DIR}/libcxx_config_site.h \
-Werror=unguarded-availability -fno-sized-deallocation")
    # An archive for each architecture in one file; ar would put files for both into one archive.
    set(CMAKE_${language}_ARCHIVE_CREATE "${llvm}/llvm-libtool-darwin -static -o <TARGET> <OBJECTS>")
    set(CMAKE_${language}_ARCHIVE_FINISH "")
endforeach()
set(CMAKE_EXE_LINKER_FLAGS_INIT "-fuse-ld=lld -B${llvm}")
set(CMAKE_INSTALL_NAME_TOOL "${llvm}/llvm-install-name-tool")
set(CMAKE_OTOOL "${llvm}/llvm-otool")

set(CLI11_INCLUDE_DIR "${TALVEX_MACOS_PARTS}/sdk/usr/include")
set(Qt5_DIR "${CMAKE_CURRENT_LIST_DIR}/Qt5")
