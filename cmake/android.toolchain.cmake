# Android toolchain entry point used by the android-* presets.
#
# With a complete NDK in $ANDROID_NDK this simply defers to the NDK's own toolchain file. Some NDK
# copies ship without their clang (sysroot and libraries only); for those we build with the system's
# clang and lld against the NDK's sysroot instead, which is enough to compile and link the plug-in.
# scripts/android-build.sh builds both ABIs this way and checks what the linker produced.

if(NOT ANDROID_NDK)
  set(ANDROID_NDK "$ENV{ANDROID_NDK}")
endif()
if(NOT ANDROID_NDK OR NOT EXISTS "${ANDROID_NDK}/build/cmake/android.toolchain.cmake")
  message(FATAL_ERROR "Set ANDROID_NDK to the root of an Android NDK (got '${ANDROID_NDK}')")
endif()
get_filename_component(ANDROID_NDK "${ANDROID_NDK}" ABSOLUTE)
# Remember the NDK: ninja re-runs CMake on its own when a CMakeLists.txt changes, and then the
# environment of the original configure is gone.
set(ANDROID_NDK "${ANDROID_NDK}" CACHE PATH "Root of the Android NDK")

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
if(NOT ANDROID_STL)
  set(ANDROID_STL "c++_shared")
endif()
if(NOT ANDROID_STL STREQUAL "c++_shared")
  message(FATAL_ERROR "Without the NDK's clang only ANDROID_STL=c++_shared is supported (got '${ANDROID_STL}')")
endif()
if(NOT DEFINED ANDROID_ARM_NEON)
  set(ANDROID_ARM_NEON ON)
endif()
string(REGEX REPLACE "^android-" "" _ozm_api "${ANDROID_PLATFORM}")
if(NOT _ozm_api MATCHES "^[0-9]+$")
  message(FATAL_ERROR "ANDROID_PLATFORM must look like android-21 (got '${ANDROID_PLATFORM}')")
endif()

if(ANDROID_ABI STREQUAL "armeabi-v7a")
  set(_ozm_triple "armv7a-linux-androideabi${_ozm_api}")
  set(_ozm_lib_triple "arm-linux-androideabi")
  set(CMAKE_SYSTEM_PROCESSOR armv7-a)
  if(ANDROID_ARM_NEON)
    set(_ozm_fpu "neon")
  else()
    set(_ozm_fpu "vfpv3-d16")
  endif()
  set(_ozm_arch_flags "-march=armv7-a -mthumb -mfloat-abi=softfp -mfpu=${_ozm_fpu}")
  # Works around the Cortex-A8 branch erratum, as the NDK does for every armv7 binary.
  set(_ozm_arch_link_flags "-Wl,--fix-cortex-a8")
elseif(ANDROID_ABI STREQUAL "arm64-v8a")
  set(_ozm_triple "aarch64-linux-android${_ozm_api}")
  set(_ozm_lib_triple "aarch64-linux-android")
  set(CMAKE_SYSTEM_PROCESSOR aarch64)
  set(_ozm_arch_flags "")
  set(_ozm_arch_link_flags "-Wl,--fix-cortex-a53-843419")
else()
  message(FATAL_ERROR "Unsupported ANDROID_ABI '${ANDROID_ABI}' (armeabi-v7a or arm64-v8a)")
endif()

set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_VERSION ${_ozm_api})
set(ANDROID TRUE)
set(CMAKE_SYSROOT "${_ozm_ndk_llvm}/sysroot")
set(_ozm_api_lib_dir "${CMAKE_SYSROOT}/usr/lib/${_ozm_lib_triple}/${_ozm_api}")
if(NOT EXISTS "${_ozm_api_lib_dir}/libc.so")
  message(FATAL_ERROR "The NDK has no ${ANDROID_ABI} libraries for API ${_ozm_api} (${_ozm_api_lib_dir})")
endif()

find_program(_ozm_clang NAMES clang REQUIRED NO_CMAKE_FIND_ROOT_PATH)
find_program(_ozm_clangxx NAMES clang++ REQUIRED NO_CMAKE_FIND_ROOT_PATH)
find_program(_ozm_lld NAMES ld.lld REQUIRED NO_CMAKE_FIND_ROOT_PATH)
set(CMAKE_C_COMPILER "${_ozm_clang}")
set(CMAKE_LINKER "${_ozm_lld}")
set(CMAKE_CXX_COMPILER "${_ozm_clangxx}")
set(CMAKE_C_COMPILER_TARGET ${_ozm_triple})
set(CMAKE_CXX_COMPILER_TARGET ${_ozm_triple})
set(CMAKE_TRY_COMPILE_PLATFORM_VARIABLES
    ANDROID_NDK ANDROID_ABI ANDROID_PLATFORM ANDROID_STL ANDROID_ARM_NEON)
# Such copies may lack the compiler builtins, so compilers are probed without linking.
set(CMAKE_TRY_COMPILE_TARGET_TYPE STATIC_LIBRARY)

# The shared C++ runtime: under sources/cxx-stl in older NDK releases, in the sysroot in newer ones.
set(_ozm_cxx_shared "")
foreach(_ozm_dir "${ANDROID_NDK}/sources/cxx-stl/llvm-libc++/libs/${ANDROID_ABI}"
                 "${CMAKE_SYSROOT}/usr/lib/${_ozm_lib_triple}")
  if(EXISTS "${_ozm_dir}/libc++_shared.so")
    set(_ozm_cxx_shared "${_ozm_dir}/libc++_shared.so")
    break()
  endif()
endforeach()
get_property(_ozm_in_try_compile GLOBAL PROPERTY IN_TRY_COMPILE)
if(NOT _ozm_cxx_shared AND NOT _ozm_in_try_compile)
  # Link against an empty library that carries only the runtime's soname, so the plug-in still
  # records its dependency on libc++_shared.so. Which runtime symbols it uses can then not be
  # checked against the real library; scripts/android-build.sh reports those.
  set(_ozm_cxx_shared "${CMAKE_BINARY_DIR}/cxx-runtime-placeholder/libc++_shared.so")
  if(NOT EXISTS "${_ozm_cxx_shared}")
    message(WARNING "The NDK has no libc++_shared.so for ${ANDROID_ABI}; linking against an empty "
                    "placeholder (${_ozm_cxx_shared}). Package the real runtime with the plug-in.")
    file(MAKE_DIRECTORY "${CMAKE_BINARY_DIR}/cxx-runtime-placeholder")
    execute_process(
      COMMAND "${_ozm_clang}" --target=${_ozm_triple} -fuse-ld=lld -shared -nostdlib
              -Wl,-soname,libc++_shared.so -x c /dev/null -o "${_ozm_cxx_shared}"
      RESULT_VARIABLE _ozm_rc ERROR_VARIABLE _ozm_err)
    if(NOT _ozm_rc EQUAL 0)
      message(FATAL_ERROR "Could not create the C++ runtime placeholder: ${_ozm_err}")
    endif()
  endif()
endif()
# The armv7 C++ runtime leaves the unwinder to each binary (the NDK's libc++.so linker script reads
# INPUT(-lunwind ... -lc++_shared)): link it statically, its symbols stay hidden through
# --exclude-libs. Without it the EHABI personality routines would stay unresolved.
set(_ozm_unwind "")
if(ANDROID_ABI STREQUAL "armeabi-v7a"
   AND EXISTS "${ANDROID_NDK}/sources/cxx-stl/llvm-libc++/libs/${ANDROID_ABI}/libunwind.a")
  set(_ozm_unwind "${ANDROID_NDK}/sources/cxx-stl/llvm-libc++/libs/${ANDROID_ABI}/libunwind.a")
endif()

# The compiler support libraries the NDK puts into every binary: builtins and, on arm64, the
# unwinder. Where a copy lacks them the builtins stay unresolved; scripts/android-build.sh lists them.
set(_ozm_gcc_dir "${_ozm_ndk_llvm}/lib/gcc/${_ozm_lib_triple}/4.9.x")
if(ANDROID_ABI STREQUAL "armeabi-v7a")
  string(APPEND _ozm_gcc_dir "/armv7-a/thumb")
endif()
set(_ozm_support "")
foreach(_ozm_lib "${_ozm_api_lib_dir}/libcompiler_rt-extras.a" "${_ozm_gcc_dir}/libgcc_real.a")
  if(EXISTS "${_ozm_lib}")
    string(APPEND _ozm_support " ${_ozm_lib}")
  endif()
endforeach()

set(_ozm_common_flags
    "${_ozm_arch_flags} -DANDROID -fdata-sections -ffunction-sections -funwind-tables -fstack-protector-strong -D_FORTIFY_SOURCE=2")
set(CMAKE_C_FLAGS_INIT "${_ozm_common_flags}")
set(CMAKE_CXX_FLAGS_INIT "${_ozm_common_flags} -stdlib=libc++")
# Default libraries are named explicitly: the C library set of the API level, the shared C++ runtime
# and whatever of the support libraries above exists. scripts/android-build.sh checks that nothing
# but builtins is left unresolved. Both hash styles: loaders before API 23 only read DT_HASH.
set(CMAKE_SHARED_LINKER_FLAGS_INIT
    "-fuse-ld=lld -nodefaultlibs -Wl,--gc-sections -Wl,--build-id=sha1 -Wl,--hash-style=both -Wl,-z,noexecstack -Wl,-z,relro -Wl,-z,now -Wl,--warn-shared-textrel ${_ozm_arch_link_flags}")
set(CMAKE_CXX_STANDARD_LIBRARIES_INIT "${_ozm_unwind} ${_ozm_cxx_shared}${_ozm_support} -lc -lm -ldl")
set(CMAKE_C_STANDARD_LIBRARIES_INIT "${_ozm_unwind}${_ozm_support} -lc -lm -ldl")
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
