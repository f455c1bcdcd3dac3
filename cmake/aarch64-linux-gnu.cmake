# Cross build for 64-bit Arm Linux on an x86-64 Debian machine: Debian's cross
# compiler (crossbuild-essential-arm64) and the arm64 libraries installed
# through multiarch into /usr/lib/aarch64-linux-gnu (scripts/install-arm-deps.sh).
# Test binaries run through qemu's user-mode emulation, so CTest and
# gtest_discover_tests work as in a native build.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)

set(VXLAN_EF_CROSS_TRIPLE aarch64-linux-gnu)
set(CMAKE_C_COMPILER ${VXLAN_EF_CROSS_TRIPLE}-gcc)
set(CMAKE_CXX_COMPILER ${VXLAN_EF_CROSS_TRIPLE}-g++)
set(CMAKE_LIBRARY_ARCHITECTURE ${VXLAN_EF_CROSS_TRIPLE})

# The multiarch libraries and headers live on the host's own tree, so the
# search stays on it; only the per-architecture directories are looked at
# for libraries and packages. Programs (protoc-c) are the host's.
set(CMAKE_FIND_ROOT_PATH /usr/${VXLAN_EF_CROSS_TRIPLE})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY BOTH)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE BOTH)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE BOTH)

# pkg-config must report the arm64 .pc files, never the host's.
set(ENV{PKG_CONFIG_LIBDIR} /usr/lib/${VXLAN_EF_CROSS_TRIPLE}/pkgconfig:/usr/share/pkgconfig)
set(ENV{PKG_CONFIG_PATH} "")

find_program(VXLAN_EF_CROSS_NM ${VXLAN_EF_CROSS_TRIPLE}-nm)
if(VXLAN_EF_CROSS_NM)
  set(CMAKE_NM ${VXLAN_EF_CROSS_NM} CACHE FILEPATH "nm for the target's objects")
endif()

# qemu-user's explicit loader prefix rather than binfmt, which needs a
# registration that containers and CI machines do not always allow.
# The loader comes from the cross toolchain's C library, and so must libc:
# left to the host's ld.so.cache it would pick the multiarch libc6:arm64,
# another build of glibc whose private state does not match this loader's,
# and the first pthread_create then never returns.
find_program(VXLAN_EF_QEMU NAMES qemu-aarch64 qemu-aarch64-static)
if(VXLAN_EF_QEMU)
  set(CMAKE_CROSSCOMPILING_EMULATOR ${VXLAN_EF_QEMU}
    -L /usr/${VXLAN_EF_CROSS_TRIPLE}
    -E LD_LIBRARY_PATH=/usr/${VXLAN_EF_CROSS_TRIPLE}/lib)
endif()
