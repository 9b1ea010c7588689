# One interface target per set of flags; nothing else sets compiler options.

add_library(celmux_strict_flags INTERFACE)
target_compile_options(celmux_strict_flags INTERFACE
    -Wall -Wextra -Wpedantic -Wshadow -Wformat=2 -Wundef -Werror)
target_compile_definitions(celmux_strict_flags INTERFACE _GNU_SOURCE)
find_package(Threads REQUIRED)
target_link_libraries(celmux_strict_flags INTERFACE Threads::Threads)

add_library(celmux_daemon_flags INTERFACE)
target_link_libraries(celmux_daemon_flags INTERFACE celmux_strict_flags)
target_compile_options(celmux_daemon_flags INTERFACE
    $<$<COMPILE_LANGUAGE:CXX>:-fno-exceptions -fno-rtti -fno-threadsafe-statics>
    -ffunction-sections -fdata-sections
    # As the package builds it: a daemon that mostly waits is better small than quick.
    $<$<CONFIG:Release>:-Os>
    # Tables for exceptions that nobody throws; elsewhere they serve debuggers and profilers.
    $<$<CONFIG:MinSizeRel>:-fno-asynchronous-unwind-tables -fno-unwind-tables>)
target_link_options(celmux_daemon_flags INTERFACE -Wl,--gc-sections)
# The erratum of the Cortex-A53 is mended in place, not by a page of stubs: programs of this size are within an ADR's reach.
if(CMAKE_SYSTEM_PROCESSOR STREQUAL aarch64)
    target_link_options(celmux_daemon_flags INTERFACE -Wl,--fix-cortex-a53-843419=adr)
endif()

# -O3 makes a router's daemon larger, not quicker.
set(CMAKE_CXX_FLAGS_RELEASE "-O2 -DNDEBUG")
set(CMAKE_C_FLAGS_RELEASE "-O2 -DNDEBUG")

# Tests are compiled more often than they run.
add_library(celmux_test_flags INTERFACE)
target_link_libraries(celmux_test_flags INTERFACE celmux_strict_flags)
target_compile_options(celmux_test_flags INTERFACE -O0 -U_FORTIFY_SOURCE)

# Hardening is on wherever the sanitizers do not stand in for it.
set(CMAKE_POSITION_INDEPENDENT_CODE ON)
include(CheckPIESupported)
check_pie_supported()
add_compile_options(-fstack-protector-strong)
add_link_options(-Wl,-z,relro,-z,now,-z,noexecstack)
if(CELMUX_SANITIZE STREQUAL none AND NOT CMAKE_BUILD_TYPE STREQUAL Debug)
    add_compile_options(-U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=2)
endif()

if(CELMUX_SANITIZE STREQUAL address)
    add_compile_options(-fsanitize=address,undefined -fno-sanitize-recover=all -fno-omit-frame-pointer)
    add_link_options(-fsanitize=address,undefined)
elseif(CELMUX_SANITIZE STREQUAL thread)
    add_compile_options(-fsanitize=thread -fno-omit-frame-pointer)
    add_link_options(-fsanitize=thread)
elseif(NOT CELMUX_SANITIZE STREQUAL none)
    message(FATAL_ERROR "CELMUX_SANITIZE is none, address or thread")
endif()
