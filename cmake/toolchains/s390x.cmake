# No router has it: a 64-bit processor that keeps the highest byte first.
set(CMAKE_SYSTEM_PROCESSOR s390x)
set(gnu s390x-linux-gnu)
set(qemu s390x)
include(${CMAKE_CURRENT_LIST_DIR}/debian.cmake)
