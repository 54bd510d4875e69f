# Android toolchain entry point used by the android-* presets.
#
# With a complete NDK in $ANDROID_NDK this simply defers to the NDK's own toolchain file. Some NDK
# copies ship without their clang (sysroot and libraries only); for those we build with the system's
# clang and lld against the NDK's sysroot instead, which is enough to compile and link the plug-in.

if(NOT ANDROID_NDK)
  set(ANDROID_NDK "$ENV{ANDROID_NDK}")
endif()
if(NOT ANDROID_NDK OR NOT EXISTS "${ANDROID_NDK}/build/cmake/android.toolchain.cmake")
  message(FATAL_ERROR "Set ANDROID_NDK to the root of an Android NDK (got '${ANDROID_NDK}')")
endif()

set(_ozm_ndk_host "linux-x86_64")
set(_ozm_ndk_llvm "${ANDROID_NDK}/toolchains/llvm/prebuilt/${_ozm_ndk_host}")
if(EXISTS "${_ozm_ndk_llvm}/bin/clang")
  include("${ANDROID_NDK}/build/cmake/android.toolchain.cmake")
  return()
endif()

# --- Fallback: system clang + lld with the NDK's sysroot -------------------------------------------
if(NOT ANDROID_ABI)
  set(ANDROID_ABI "armeabi-v7a")
endif()
if(NOT ANDROID_PLATFORM)
  set(ANDROID_PLATFORM "android-21")
endif()
string(REGEX REPLACE "^android-" "" _ozm_api "${ANDROID_PLATFORM}")

if(ANDROID_ABI STREQUAL "armeabi-v7a")
  set(_ozm_triple "armv7a-linux-androideabi${_ozm_api}")
  set(_ozm_lib_triple "arm-linux-androideabi")
  set(CMAKE_SYSTEM_PROCESSOR armv7-a)
  set(_ozm_arch_flags "-march=armv7-a -mthumb -mfloat-abi=softfp -mfpu=neon")
elseif(ANDROID_ABI STREQUAL "arm64-v8a")
  set(_ozm_triple "aarch64-linux-android${_ozm_api}")
  set(_ozm_lib_triple "aarch64-linux-android")
  set(CMAKE_SYSTEM_PROCESSOR aarch64)
  set(_ozm_arch_flags "")
else()
  message(FATAL_ERROR "Unsupported ANDROID_ABI '${ANDROID_ABI}'")
endif()

set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_VERSION ${_ozm_api})
set(ANDROID TRUE)
set(CMAKE_SYSROOT "${_ozm_ndk_llvm}/sysroot")
set(CMAKE_C_COMPILER clang)
set(CMAKE_CXX_COMPILER clang++)
set(CMAKE_C_COMPILER_TARGET ${_ozm_triple})
set(CMAKE_CXX_COMPILER_TARGET ${_ozm_triple})
set(CMAKE_TRY_COMPILE_PLATFORM_VARIABLES ANDROID_NDK ANDROID_ABI ANDROID_PLATFORM ANDROID_STL)
# The armv7 compiler builtins are not part of such an NDK copy, so probe compilers without linking.
set(CMAKE_TRY_COMPILE_TARGET_TYPE STATIC_LIBRARY)

set(_ozm_stl_dir "${ANDROID_NDK}/sources/cxx-stl/llvm-libc++/libs/${ANDROID_ABI}")
set(CMAKE_C_FLAGS_INIT "${_ozm_arch_flags} -DANDROID -fdata-sections -ffunction-sections")
set(CMAKE_CXX_FLAGS_INIT "${_ozm_arch_flags} -DANDROID -fdata-sections -ffunction-sections -stdlib=libc++")
# Default libraries are named explicitly: the C library set of the API level and the shared C++
# runtime. Compiler builtins stay unresolved here; the device's loader never needs them from us
# because scripts/android-build.sh checks that only builtins are left.
set(CMAKE_SHARED_LINKER_FLAGS_INIT
    "-fuse-ld=lld -nodefaultlibs -Wl,--gc-sections -Wl,--build-id=sha1 -L${CMAKE_SYSROOT}/usr/lib/${_ozm_lib_triple}/${_ozm_api} ${_ozm_stl_dir}/libc++_shared.so -lc -lm -ldl")
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
