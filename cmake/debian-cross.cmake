# Cross-builds with Debian's own compiler for HUBKEEPER_TRIPLET against the libraries that `scripts/setup --cross` unpacks.
# The compiler brings its C and C++ libraries along; only ours come from .cache/sysroot, so it gets no --sysroot.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR ${HUBKEEPER_PROCESSOR})
set(CMAKE_LIBRARY_ARCHITECTURE ${HUBKEEPER_TRIPLET})
set(CMAKE_C_COMPILER ${HUBKEEPER_TRIPLET}-gcc)
set(CMAKE_CXX_COMPILER ${HUBKEEPER_TRIPLET}-g++)
set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE ${HUBKEEPER_ARCH})

get_filename_component(HUBKEEPER_SYSROOT ${CMAKE_CURRENT_LIST_DIR}/../.cache/sysroot/${HUBKEEPER_ARCH} ABSOLUTE)
if(NOT EXISTS ${HUBKEEPER_SYSROOT}/.packages)
  message(FATAL_ERROR "The libraries for ${HUBKEEPER_ARCH} are missing: run scripts/setup --cross first")
endif()
set(CMAKE_FIND_ROOT_PATH ${HUBKEEPER_SYSROOT})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
set(ENV{PKG_CONFIG_SYSROOT_DIR} ${HUBKEEPER_SYSROOT})
set(ENV{PKG_CONFIG_LIBDIR} ${HUBKEEPER_SYSROOT}/usr/lib/${HUBKEEPER_TRIPLET}/pkgconfig)

# Programs run here only under the emulator, which finds the target's loader and C library by -L. No path of this checkout
# goes into them for the rest (CMAKE_SKIP_RPATH), so that what is packaged is the same wherever it was built.
set(CMAKE_SKIP_RPATH ON)
set(CMAKE_CROSSCOMPILING_EMULATOR
  ${HUBKEEPER_QEMU};-L;/usr/${HUBKEEPER_TRIPLET};-E;LD_LIBRARY_PATH=${HUBKEEPER_SYSROOT}/usr/lib/${HUBKEEPER_TRIPLET})
