# 32-bit ARM with a floating-point unit.
set(CMAKE_SYSTEM_PROCESSOR armhf)
set(gnu arm-linux-gnueabihf)
set(qemu arm)
# Routers have pages of 4 KiB; the default of 64 KiB fills the file with up to as many zeros.
set(CMAKE_EXE_LINKER_FLAGS_INIT -Wl,-z,max-page-size=4096)
include(${CMAKE_CURRENT_LIST_DIR}/debian.cmake)
