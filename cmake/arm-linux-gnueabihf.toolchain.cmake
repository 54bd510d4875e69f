# 32-bit ARM Linux (hard-float ABI) with Debian's cross compiler (g++-arm-linux-gnueabihf). Programs
# built here run on the build machine under qemu-user: ctest and test discovery start them through
# CMAKE_CROSSCOMPILING_EMULATOR. Used by the linux-arm32 preset, which builds only the mesh layer.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)

set(_ozm_triple arm-linux-gnueabihf)
set(CMAKE_C_COMPILER ${_ozm_triple}-gcc)
set(CMAKE_CXX_COMPILER ${_ozm_triple}-g++)
# The code a 32-bit phone build runs: ARMv7-A with NEON, floats passed in VFP registers. gcc notes
# at every std::vector of 64-bit pairs that their passing changed in gcc 7.1; nothing here links
# with code that old, so the note is silenced.
set(CMAKE_C_FLAGS_INIT "-march=armv7-a -mfpu=neon -mfloat-abi=hard")
set(CMAKE_CXX_FLAGS_INIT "-march=armv7-a -mfpu=neon -mfloat-abi=hard -Wno-psabi")

# Headers and libraries of the target only; programs (pkg-config, code generators) of the build machine.
set(CMAKE_FIND_ROOT_PATH /usr/${_ozm_triple})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# qemu-user finds the target's dynamic loader and shared libraries under -L.
find_program(OZM_QEMU_ARM qemu-arm)
if(NOT OZM_QEMU_ARM)
  message(FATAL_ERROR "qemu-arm not found: install qemu-user (scripts/deps.sh)")
endif()
set(CMAKE_CROSSCOMPILING_EMULATOR ${OZM_QEMU_ARM} -L /usr/${_ozm_triple})
