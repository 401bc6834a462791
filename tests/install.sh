#!/bin/bash
# Uses the library as other projects do: installed into a folder, which is then moved, and as a part of
# a project that has targets, names and rules of its own.
set -eu
. "$(dirname "$0")/../scripts/common.sh"
install_packages $build_packages make
root=$PWD
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cd "$work"
quietly() { "$@" >log 2>&1 || { cat log; return 1; }; }
build() { # FOLDER GENERATOR CMAKE-WORDS...
    quietly cmake -B "$1" -G "$2" "${@:3}"
    quietly cmake --build "$1" -j2
}
holds() { grep -q "$@" || { echo "not found: ${*: -2}"; exit 1; }; }

build build 'Unix Makefiles' -S "$root" -DCMAKE_CXX_STANDARD=20 -DCORVEL_WERROR=ON
quietly cmake --install build --prefix "$work/first"
holds std=c++20 build/compile_commands.json
mv first moved && rm -r build

build examples Ninja -S moved/share/doc/libtn-corvel-dev/examples -DCMAKE_PREFIX_PATH="$work/moved"
moved/bin/simcan --own examples/exchange 2>/dev/null | holds -x 'all as expected'

export PKG_CONFIG_PATH=$(dirname "$(find moved -name tn_corvel.pc)")
flags=$(pkg-config --cflags --libs tn_corvel)
cc "$root/examples/send.c" -o send $flags
c++ "$root/examples/ping.cpp" -o ping $flags
export LD_LIBRARY_PATH=$(pkg-config --variable=libdir tn_corvel)
moved/bin/simcan --own ./ping 2>/dev/null | holds '^identifier 123, 3 bytes'
moved/bin/simcan --own ./send 0 123#11 2>&1 | holds '^1 of 1 frames sent'
unset LD_LIBRARY_PATH PKG_CONFIG_PATH

mkdir parent
cat >parent/CMakeLists.txt <<'CMAKE'
cmake_minimum_required(VERSION 3.25)
project(parent C)
set(BUILD_SHARED_LIBS OFF)
foreach(name docs send simcan unit_tests)
  add_custom_target(${name})
endforeach()
if(CMAKE_GENERATOR STREQUAL Ninja)
  include(FetchContent)
  FetchContent_Declare(tn_corvel SOURCE_DIR ${ROOT})
  FetchContent_MakeAvailable(tn_corvel)
else()
  add_subdirectory(${ROOT} corvel)
endif()
add_executable(monitor ${ROOT}/examples/exchange.c)
target_link_libraries(monitor tn_corvel::tn_corvel)
install(TARGETS monitor)
CMAKE
for way in Ninja 'Unix Makefiles'; do
    rm -rf build installed
    build build "$way" -S parent -DROOT="$root"
    "$root/build/dev/simcan/simcan" --own build/monitor 2>/dev/null | holds -x 'all as expected'
    holds -x 'CMAKE_BUILD_TYPE:STRING=' build/CMakeCache.txt
    quietly cmake --install build --prefix "$work/installed"
    test "$(cd installed && find . -type f)" = ./bin/monitor
    ! ls build/*.so build/compile_commands.json build/CPackConfig.cmake 2>/dev/null || exit 1
done
! cmake -S "$root" -B refused -DBUILD_SHARED_LIBS=OFF >/dev/null 2>log || exit 1
holds 'tn_corvel is a shared library' log
echo "installed and moved, and built inside another project"
