# 64-bit ARM Linux with Debian's cross compiler (g++-aarch64-linux-gnu). Programs built here run on
# the build machine under qemu-user: ctest and test discovery start them through
# CMAKE_CROSSCOMPILING_EMULATOR. Used by the linux-arm64 preset, which builds only the mesh layer.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)

set(_ozm_triple aarch64-linux-gnu)
set(CMAKE_C_COMPILER ${_ozm_triple}-gcc)
set(CMAKE_CXX_COMPILER ${_ozm_triple}-g++)
# The compiler's default ARMv8-A, as a 64-bit phone build: NEON is part of it, and fused multiply-adds
# exist in hardware (the mesh layer turns their contraction off).

# Headers and libraries of the target only; programs (pkg-config, code generators) of the build machine.
set(CMAKE_FIND_ROOT_PATH /usr/${_ozm_triple})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# qemu-user finds the target's dynamic loader and shared libraries under -L.
find_program(OZM_QEMU_AARCH64 qemu-aarch64)
if(NOT OZM_QEMU_AARCH64)
  message(FATAL_ERROR "qemu-aarch64 not found: install qemu-user (scripts/deps.sh)")
endif()
set(CMAKE_CROSSCOMPILING_EMULATOR ${OZM_QEMU_AARCH64} -L /usr/${_ozm_triple})
