#!/usr/bin/env bash
# Installs a built qel_hspace tree into a scratch prefix and proves the
# installed copy is usable by an application outside the tree:
#   - headers, libraries, SONAME, pkg-config file and CMake package in place;
#   - the shared library exports exactly the functions the installed headers
#     declare KRO_API, nothing more and nothing less, plus the C++ API of
#     namespace qel::hspace and nothing else of C++;
#   - app/consumer.c and app/consumer.cpp build through pkg-config (with
#     every warning applications turn on, as errors; found at run time
#     through LD_LIBRARY_PATH, and through an rpath) and through
#     find_package (shared and static) and run.
#
#   check_install.sh BINARY_DIR APP_DIR CMAKE GENERATOR C_COMPILER CXX_COMPILER
set -euo pipefail

bin=$1 app=$2 cmake=$3 generator=$4 cc=$5 cxx=$6
tmp=$(mktemp -d "${TMPDIR:-/tmp}/qel_install.XXXXXX")
trap 'rm -rf "$tmp"' EXIT
prefix=$tmp/prefix
status=0

fail() { echo "FAIL: $*"; status=1; }
step() { echo "== $*"; }

# Runs a command quietly; on failure shows its output and stops.
quiet() {
    if ! "$@" >"$tmp/step.log" 2>&1; then
        cat "$tmp/step.log"
        echo "FAIL: $*"
        exit 1
    fi
}

step "install into a scratch prefix"
quiet "$cmake" --install "$bin" --prefix "$prefix"

pc=$(find "$prefix" -path '*/pkgconfig/qel_hspace.pc' | head -n 1)
[ -n "$pc" ] || { echo "FAIL: no pkgconfig/qel_hspace.pc under $prefix"; exit 1; }
export PKG_CONFIG_PATH=$(dirname "$pc")
libdir=$(pkg-config --variable=libdir qel_hspace)
incdir=$(pkg-config --variable=includedir qel_hspace)/qel_hspace
echo "libdir $libdir"
echo "includedir $incdir"

step "installed files"
headers=$(cd "$incdir" && ls | tr '\n' ' ')
[ "$headers" = "kro.h kro_buf.h kro_llist.h qel_hspace.h qel_hspace.hpp " ] || fail "installed headers are: $headers"
for f in libqel_hspace.so libqel_hspace.so.1 libqel_hspace.a; do
    [ -e "$libdir/$f" ] || fail "missing $libdir/$f"
done
soname=$(readelf -d "$libdir/libqel_hspace.so" | sed -n 's/.*(SONAME).*\[\(.*\)\]/\1/p')
[ "$soname" = "libqel_hspace.so.1" ] || fail "SONAME is '$soname'"
find "$prefix" -name qel_hspaceConfig.cmake | grep -q . || fail "no qel_hspaceConfig.cmake"
find "$prefix" -name qel_hspaceConfigVersion.cmake | grep -q . || fail "no qel_hspaceConfigVersion.cmake"

step "exported symbols of libqel_hspace.so"
all=$(nm -D --defined-only "$libdir/libqel_hspace.so" | awk '{print $NF}' | sort -u)
exported=$(echo "$all" | grep -v '^_Z' || true)
cxx_syms=$(echo "$all" | grep '^_Z' || true)
others=$(echo "$cxx_syms" | grep -v '^_ZN\(K\)\?3qel6hspace' || true)
echo "$(echo "$cxx_syms" | grep -c . || true) C++ symbols of qel::hspace"
[ -n "$cxx_syms" ] || fail "the C++ API is not exported"
[ -z "$others" ] || fail "C++ symbols outside qel::hspace exported: $(echo $others)"
declared=$(cat "$incdir"/*.h | grep -o '^KRO_API[^(]*(' | sed 's/($//; s/.*[ *]//' | sort -u)
extra=$(comm -23 <(echo "$exported") <(echo "$declared"))
missing=$(comm -13 <(echo "$exported") <(echo "$declared"))
echo "$(echo "$exported" | wc -l) exported, $(echo "$declared" | wc -l) declared"
[ -z "$extra" ] || fail "exported but not public: $(echo $extra)"
[ -z "$missing" ] || fail "public but not exported: $(echo $missing)"

step "consumer through pkg-config"
# The public headers raise no warning under the strict flags applications
# use (any warning fails the build); the scratch prefix is outside the
# loader's path, so one build finds the library through LD_LIBRARY_PATH and
# one through an rpath, as the README says.
c_flags=(-std=c99 -Wall -Wextra -Wpedantic -Werror)
cxx_flags=(-std=c++17 -Wall -Wextra -Wpedantic -Wold-style-cast -Wzero-as-null-pointer-constant -Wconversion -Werror)
rpath=-Wl,-rpath,$libdir
# shellcheck disable=SC2046 # pkg-config's flags are meant to split
quiet "$cc" "${c_flags[@]}" -o "$tmp/consumer_pc" "$app/consumer.c" $(pkg-config --cflags --libs qel_hspace)
LD_LIBRARY_PATH=$libdir "$tmp/consumer_pc" || fail "consumer built through pkg-config"
# shellcheck disable=SC2046
quiet "$cc" "${c_flags[@]}" -o "$tmp/consumer_rpath" "$app/consumer.c" $(pkg-config --cflags --libs qel_hspace) "$rpath"
env -u LD_LIBRARY_PATH "$tmp/consumer_rpath" || fail "consumer built with an rpath"

# shellcheck disable=SC2046
quiet "$cxx" "${cxx_flags[@]}" -o "$tmp/consumer_cpp_pc" "$app/consumer.cpp" $(pkg-config --cflags --libs qel_hspace)
LD_LIBRARY_PATH=$libdir "$tmp/consumer_cpp_pc" || fail "C++ consumer built through pkg-config"
# shellcheck disable=SC2046
quiet "$cxx" "${cxx_flags[@]}" -o "$tmp/consumer_cpp_rpath" "$app/consumer.cpp" \
    $(pkg-config --cflags --libs qel_hspace) "$rpath"
env -u LD_LIBRARY_PATH "$tmp/consumer_cpp_rpath" || fail "C++ consumer built with an rpath"

step "consumer through find_package"
quiet "$cmake" -S "$app" -B "$tmp/app" -G "$generator" -DCMAKE_C_COMPILER="$cc" -DCMAKE_CXX_COMPILER="$cxx" \
    -DCMAKE_PREFIX_PATH="$prefix" -DCMAKE_FIND_USE_PACKAGE_REGISTRY=OFF
found=$(sed -n 's/^qel_hspace_DIR:PATH=//p' "$tmp/app/CMakeCache.txt")
case $found in
"$prefix"/*) echo "found $found" ;;
*) fail "find_package found '$found', not the scratch prefix" ;;
esac
quiet "$cmake" --build "$tmp/app"
LD_LIBRARY_PATH=$libdir "$tmp/app/consumer" || fail "consumer built through find_package (shared)"
"$tmp/app/consumer_static" || fail "consumer built through find_package (static)"
LD_LIBRARY_PATH=$libdir "$tmp/app/consumer_cpp" || fail "C++ consumer built through find_package (shared)"
"$tmp/app/consumer_cpp_static" || fail "C++ consumer built through find_package (static)"
if readelf -d "$tmp/app/consumer_static" | grep -q 'libqel_hspace'; then
    fail "consumer_static depends on the shared library"
fi

[ $status -eq 0 ] && echo "install and consumers: ok"
exit $status
