#!/usr/bin/env bash
# Installs every Debian package that the build, the tests, the tools and the benchmarks need.
# Safe to run again: when everything is present it changes nothing.
set -euo pipefail

packages=(
  # build
  cmake ninja-build g++ clang lld llvm binutils pkg-config
  # sanitizer and libFuzzer runtimes for clang
  libclang-rt-14-dev
  # tests and benchmarks
  googletest libgtest-dev libgmock-dev libbenchmark-dev
  # the codecs the benchmarks compare against
  libdraco-dev libmeshoptimizer-dev
  # the ozm tool
  libcli11-dev nlohmann-json3-dev libassimp-dev libpng-dev
  libavformat-dev libavcodec-dev libswscale-dev libavutil-dev
  # the host backend of the plug-in: EGL and GLES headers, Mesa's software renderer
  libegl-dev libgles-dev libegl-mesa0 libgl1-mesa-dri
  # downloads of streamed segments on the host, and the tests' loopback HTTP server
  libcurl4-openssl-dev python3
  # the ffmpeg command line and jq, which the tool tests check files and reports with
  ffmpeg jq
  # the plug-in's Java class and its JNI bridge, compiled and run on a desktop JVM
  openjdk-17-jdk-headless
  # the engine-side C# binding, compiled and run with Mono
  mono-mcs mono-runtime
  # the mesh layer and its tests cross-built for 32- and 64-bit ARM Linux and run under qemu-user
  # (the compilers bring their C and C++ libraries for the target; GoogleTest is built from googletest)
  g++-arm-linux-gnueabihf g++-aarch64-linux-gnu qemu-user
)

missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if [ ${#missing[@]} -eq 0 ]; then
  echo "deps: all ${#packages[@]} packages present"
  exit 0
fi

sudo=""
if [ "$(id -u)" -ne 0 ]; then
  command -v sudo >/dev/null || { echo "deps: need root (or sudo) to install: ${missing[*]}" >&2; exit 1; }
  sudo="sudo"
fi
echo "deps: installing ${missing[*]}"
$sudo apt-get update -qq
DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
echo "deps: done"
