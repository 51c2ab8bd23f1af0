#!/bin/bash
# The installed tree serves a stranger: a program is compiled against its headers and its pkg-config file, as C11 and
# as C++20, linked with the shared and with the static library, and run; the same through the CMake package. So are the
# software adapter's archive and header.
#
#   installed_tree.sh BUILD_DIR CC CXX FLAGS      FLAGS: further compiler flags, for example -m32
set -euo pipefail
build=$1 cc=$2 cxx=$3
read -ra flags <<<"${4:-}"
here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
tree=$(mktemp -d)
trap 'rm -rf "$tree"' EXIT

prefix=$tree/prefix
cmake --install "$build" --prefix "$prefix" >"$tree/install.log" || {
    cat "$tree/install.log"
    exit 1
}
pc=$(find "$prefix" -name ruk.pc)
libdir=$(dirname "$(dirname "$pc")")
grep -q "libruk.so in $libdir once 'ldconfig' has run" "$tree/install.log" || {
    echo "installed tree: the installation does not say that ldconfig has to run"
    exit 1
}
if DESTDIR=$tree/package cmake --install "$build" --prefix "$prefix" | grep ldconfig; then
    echo "installed tree: it says so to a package build, too"
    exit 1
fi
rm -r "$tree/package"
export PKG_CONFIG_PATH=${pc%/*}
pc_config() {
    pkg-config "$@" ruk
}

fail() {
    echo "installed tree: $*"
    exit 1
}

for file in libruk.so libruk.so.0 libruk.a; do
    [[ -e $libdir/$file ]] || fail "no $file"
done
[[ -e $prefix/include/ruk.h ]] || fail "no ruk.h"
[[ -n $(pc_config --modversion) ]] || fail "ruk.pc has no version"
[[ $(realpath "$(pc_config --variable=includedir)") == "$(realpath "$prefix/include")" ]] || fail "ruk.pc names another prefix"

strict=(-Wall -Wextra -Wpedantic -Werror)
read -ra cflags <<<"$(pc_config --cflags)"
read -ra libs <<<"$(pc_config --libs)"
read -ra private <<<"$(pc_config --libs --static)"
"$cc" "${flags[@]}" -std=c11 -D_DEFAULT_SOURCE "${strict[@]}" "${cflags[@]}" -o "$tree/c_shared" "$here/consumer.c" "${libs[@]}"
"$cxx" "${flags[@]}" -std=c++20 "${strict[@]}" "${cflags[@]}" -o "$tree/cxx_shared" -x c++ "$here/consumer.c" -x none "${libs[@]}"
"$cc" "${flags[@]}" -std=c11 -D_DEFAULT_SOURCE "${strict[@]}" "${cflags[@]}" -o "$tree/c_static" "$here/consumer.c" \
    -Wl,-Bstatic "${private[@]}" -Wl,-Bdynamic
"$cxx" "${flags[@]}" -std=c++20 "${strict[@]}" "${cflags[@]}" -o "$tree/cxx_static" -x c++ "$here/consumer.c" -x none \
    -Wl,-Bstatic "${private[@]}" -Wl,-Bdynamic

for program in c_shared cxx_shared; do
    readelf -d "$tree/$program" | grep -q 'NEEDED.*\[libruk.so.0\]' || fail "$program is not linked with libruk.so.0"
    LD_LIBRARY_PATH=$libdir "$tree/$program" || fail "$program failed"
done
for program in c_static cxx_static; do
    if readelf -d "$tree/$program" | grep -q 'NEEDED.*libruk'; then
        fail "$program needs the shared library"
    fi
    "$tree/$program" || fail "$program failed"
done

# Through the CMake package, whose imported targets bring headers, thread library and language along.
mkdir "$tree/user"
cat >"$tree/user/CMakeLists.txt" <<CMAKE
cmake_minimum_required(VERSION 3.25)
project(user LANGUAGES C CXX)
find_package(ruk REQUIRED)
add_executable(with_shared "$here/consumer.c")
target_link_libraries(with_shared PRIVATE ruk::ruk)
add_executable(with_static "$here/consumer.c")
target_link_libraries(with_static PRIVATE ruk::ruk_static)
# The software adapter, in C as in C++, with either library.
configure_file("$here/adapter_consumer.c" adapter_consumer.cpp COPYONLY)
add_executable(adapter_c "$here/adapter_consumer.c")
target_link_libraries(adapter_c PRIVATE ruk::softnic ruk::ruk)
add_executable(adapter_cxx \${CMAKE_CURRENT_BINARY_DIR}/adapter_consumer.cpp)
target_compile_features(adapter_cxx PRIVATE cxx_std_20)
target_link_libraries(adapter_cxx PRIVATE ruk::ruk_static ruk::softnic)
add_executable(adapter_capture "$here/adapter_consumer.c")
target_compile_definitions(adapter_capture PRIVATE WITH_CAPTURE)
target_link_libraries(adapter_capture PRIVATE ruk::softnic_capture ruk::ruk)
CMAKE
if ! {
    CC=$cc CXX=$cxx CFLAGS="${flags[*]} -D_DEFAULT_SOURCE" CXXFLAGS="${flags[*]}" \
        cmake -S "$tree/user" -B "$tree/user/build" -G Ninja -DCMAKE_PREFIX_PATH="$prefix" &&
        cmake --build "$tree/user/build"
} >"$tree/user.log" 2>&1; then
    cat "$tree/user.log"
    fail "the CMake package does not serve"
fi
for program in with_shared with_static adapter_c adapter_cxx adapter_capture; do
    "$tree/user/build/$program" || fail "$program failed"
done
# The example that is a project of its own, as it is shipped. The host's test library is for its own word size only.
if [[ " ${flags[*]} " != *" -m32 "* ]]; then
    cp -r "$here/../../examples/market_data" "$tree/market_data"
    if ! {
        CXX=$cxx CXXFLAGS="${flags[*]}" cmake -S "$tree/market_data" -B "$tree/market_data/build" -G Ninja \
            -DCMAKE_PREFIX_PATH="$prefix" &&
            cmake --build "$tree/market_data/build" &&
            ctest --test-dir "$tree/market_data/build" --output-on-failure --no-tests=error
    } >"$tree/market_data.log" 2>&1; then
        cat "$tree/market_data.log"
        fail "the example market_data is of no use to its readers"
    fi
    # Its tests fail where loopback is down, and do not crash.
    if unshare --user --map-root-user --net true 2>"$tree/unshare.log"; then
        status=0
        unshare --user --map-root-user --net "$tree/market_data/build/example-market-data-test" \
            &>"$tree/no_loopback.log" || status=$?
        ((status == 1)) || fail "the tests of market_data end with $status without loopback"
    fi
fi
# Where the adapter's archives are not, for they come in a package of their own, the rest serves all the same, and who
# asks for the adapter is told.
cmake_dir=$(dirname "$(find "$prefix" -name ruk-config.cmake)")
mkdir "$tree/without" "$tree/hidden"
mv "$cmake_dir"/ruk-softnic-targets*.cmake "$tree/hidden"
find_without_adapter() { # [COMPONENTS NAME]
    cat >"$tree/without/CMakeLists.txt" <<CMAKE
cmake_minimum_required(VERSION 3.25)
project(without LANGUAGES C)
find_package(ruk REQUIRED $*)
if(TARGET ruk::softnic OR NOT TARGET ruk::ruk)
  message(FATAL_ERROR "wrong targets")
endif()
CMAKE
    CC=$cc CFLAGS="${flags[*]}" cmake -S "$tree/without" -B "$tree/without/build" -G Ninja \
        -DCMAKE_PREFIX_PATH="$prefix" >"$tree/without.log" 2>&1
}
if ! find_without_adapter; then
    cat "$tree/without.log"
    fail "the CMake package does not serve without the adapter"
fi
if find_without_adapter COMPONENTS softnic || ! grep -q 'archives of the software adapter' "$tree/without.log"; then
    cat "$tree/without.log"
    fail "the CMake package does not tell that the adapter is missing"
fi
mv "$tree/hidden"/*.cmake "$cmake_dir"
# The software adapter for users' own tests, as its pkg-config file tells.
read -ra adapter <<<"$(pkg-config --cflags --libs ruk-softnic)"
for program in c cxx c_capture; do
    language=(-x c -std=c11 -D_DEFAULT_SOURCE) compiler=$cc archives=()
    [[ $program != cxx ]] || language=(-x c++ -std=c++20) compiler=$cxx
    [[ $program != c_capture ]] || archives=(-DWITH_CAPTURE -lsoftnic_capture -lsoftnic_tap)
    "$compiler" "${flags[@]}" "${language[@]}" "${strict[@]}" -L"$libdir" -o "$tree/adapter_$program" \
        "$here/adapter_consumer.c" -x none "${archives[@]}" "${adapter[@]}" || fail "libsoftnic does not link"
    LD_LIBRARY_PATH=$libdir "$tree/adapter_$program" || fail "adapter_$program failed"
done

# All programs start where they were installed.
programs=(rukrun)
[[ ! -x $build/bin/ruk-recv ]] || programs+=(ruk-info ruk-recv ruk-send ruk-ping ruk-top)
[[ ! -x $build/bin/ruk-capture ]] || programs+=(ruk-capture)
for program in "${programs[@]}"; do
    [[ -x $prefix/bin/$program ]] || fail "no $program"
done
for program in $(ls "$prefix/bin"); do
    said=$(LD_LIBRARY_PATH=$libdir "$prefix/bin/$program" --version) || fail "$program does not start"
    [[ $said == "$program "* ]] || fail "$program --version says: $said"
done

echo "installed tree: ok"
