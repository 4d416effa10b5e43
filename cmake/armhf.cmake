set(HUBKEEPER_ARCH armhf)
set(HUBKEEPER_PROCESSOR arm)
set(HUBKEEPER_TRIPLET arm-linux-gnueabihf)
set(HUBKEEPER_QEMU qemu-arm-static)
include(${CMAKE_CURRENT_LIST_DIR}/debian-cross.cmake)
# The compiler would tell of an argument passing that changed in its version 7; everything here is built with one version.
set(CMAKE_CXX_FLAGS_INIT -Wno-psabi)
