# 64-bit ARM, what most routers with these modems have.
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(gnu aarch64-linux-gnu)
set(qemu aarch64)
# Routers have pages of 4 KiB; the default of 64 KiB fills the file with up to as many zeros.
set(CMAKE_EXE_LINKER_FLAGS_INIT -Wl,-z,max-page-size=4096)
include(${CMAKE_CURRENT_LIST_DIR}/debian.cmake)
