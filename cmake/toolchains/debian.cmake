# What Debian's cross compilers have in common; included by the file of a target, which sets `gnu`, its name among the GNU
# tools, and `qemu`, its name in QEMU. Libraries of the target are looked for in the build folder's sysroot (see cross.sh).
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_C_COMPILER ${gnu}-gcc)
set(CMAKE_CXX_COMPILER ${gnu}-g++)

# Trials have a folder of their own and need no libraries, and their environment is this one's.
get_property(trial GLOBAL PROPERTY IN_TRY_COMPILE)
if(trial)
    return()
endif()

set(CMAKE_FIND_ROOT_PATH ${CMAKE_BINARY_DIR}/sysroot)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
set(ENV{PKG_CONFIG_SYSROOT_DIR} ${CMAKE_BINARY_DIR}/sysroot)
set(ENV{PKG_CONFIG_LIBDIR} ${CMAKE_BINARY_DIR}/sysroot/usr/lib/${gnu}/pkgconfig)
set(CMAKE_SKIP_RPATH ON)

# The C and C++ libraries are where the cross compilers' packages put them, without the tables of iconv; all others are beside the
# programs.
set(CMAKE_CROSSCOMPILING_EMULATOR /usr/bin/qemu-${qemu}-static -L /usr/${gnu}
    -E LD_LIBRARY_PATH=${CMAKE_BINARY_DIR}/bin/target -E GCONV_PATH=${CMAKE_BINARY_DIR}/sysroot/usr/lib/${gnu}/gconv)
