#!/usr/bin/env bash
# check_packages.sh BINARY_DIR SOURCE_DIR C_COMPILER - makes the Debian
# packages of a built tree with CPack, checks their names, dependencies and
# files, unpacks them into a scratch root (dpkg-deb -x) and runs what they
# installed: hspaced from the root, hspace from the root against it (the
# library from the root, LD_LIBRARY_PATH on the scratch lib dir), the manual
# pages, the systemd unit, and an application built against the
# development package through pkg-config with an rpath.
set -u
bin=$1 src=$2 cc=$3
. "$src/tests/service/lib.sh"

command -v cpack >/dev/null && command -v dpkg-deb >/dev/null || {
    echo "check_packages: skipped: cpack or dpkg-deb is missing"
    exit 0
}

# quiet COMMAND...: runs it; on failure shows its output and fails.
quiet() {
    "$@" >"$tmp/step.log" 2>&1 || fail "$*: $(tail -20 "$tmp/step.log")"
}

quiet cpack -G DEB --config "$bin/CPackConfig.cmake" -B "$tmp/pkg"
version=$(sed -n 's/^set(CPACK_PACKAGE_VERSION "\(.*\)")$/\1/p' "$bin/CPackConfig.cmake")-1
for p in libqel-hspace1 libqel-hspace-dev hspace-tools; do
    deb=$tmp/pkg/${p}_${version}_amd64.deb
    [ -f "$deb" ] || fail "no package $p: $(ls "$tmp/pkg")"
    dpkg-deb -f "$deb" Package Version Depends >"$tmp/$p.control"
    dpkg-deb -c "$deb" | awk '{print $6}' | sed 's|^\./|/|' >"$tmp/$p.files"
    dpkg-deb -x "$deb" "$tmp/root"
done
grep -q "^Depends: .*libqel-hspace1 (= $version)" "$tmp/hspace-tools.control" || fail "hspace-tools: $(cat "$tmp/hspace-tools.control")"
grep -q "^Depends: libqel-hspace1 (= $version)" "$tmp/libqel-hspace-dev.control" || fail "dev: $(cat "$tmp/libqel-hspace-dev.control")"
grep -q "^Depends: .*libc6" "$tmp/libqel-hspace1.control" || fail "libqel-hspace1: $(cat "$tmp/libqel-hspace1.control")"
# Each file in the package it belongs to, and only there (LIB: the library
# directory, /usr/lib or the multiarch one, as the tree was configured).
lib=$(sed -n 's|/libqel_hspace.so.1$||p' "$tmp/libqel-hspace1.files")
[ -n "$lib" ] || fail "libqel-hspace1 holds no libqel_hspace.so.1: $(cat "$tmp/libqel-hspace1.files")"
while read -r pkg file; do
    file=${file/LIB/$lib}
    grep -qx "$file" "$tmp/$pkg.files" || fail "$pkg lacks $file: $(cat "$tmp/$pkg.files")"
    for other in libqel-hspace1 libqel-hspace-dev hspace-tools; do
        [ "$other" = "$pkg" ] || ! grep -qx "$file" "$tmp/$other.files" || fail "$file is also in $other"
    done
done <<'EOF'
libqel-hspace1 LIB/libqel_hspace.so.1
libqel-hspace-dev LIB/libqel_hspace.so
libqel-hspace-dev LIB/libqel_hspace.a
libqel-hspace-dev /usr/include/qel_hspace/qel_hspace.h
libqel-hspace-dev /usr/include/qel_hspace/qel_hspace.hpp
libqel-hspace-dev /usr/include/qel_hspace/kro.h
libqel-hspace-dev LIB/pkgconfig/qel_hspace.pc
libqel-hspace-dev LIB/cmake/qel_hspace/qel_hspaceConfig.cmake
hspace-tools /usr/bin/hspace
hspace-tools /usr/bin/hspaced
hspace-tools /usr/lib/systemd/system/hspaced.service
hspace-tools /usr/share/bash-completion/completions/hspace
EOF
# The manual pages, when help2man was there to make them.
if [ -f "$bin/cli/man/hspace.1" ]; then
    grep -qx /usr/share/man/man1/hspace.1 "$tmp/hspace-tools.files" || fail "hspace-tools lacks hspace(1)"
    grep -qx /usr/share/man/man8/hspaced.8 "$tmp/hspace-tools.files" || fail "hspace-tools lacks hspaced(8)"
fi

# The unit starts the installed program and is hardened; systemd scores
# it when it can (an exposure of 2.0 or less: "OK").
root=$tmp/root
unit=$root/usr/lib/systemd/system/hspaced.service
grep -qx "ExecStart=/usr/bin/hspaced --listen 127.0.0.1 --port 7521" "$unit" || fail "unit: $(grep Exec "$unit")"
for setting in DynamicUser=yes NoNewPrivileges=yes ProtectSystem=strict ProtectHome=yes PrivateTmp=yes \
    'ExecReload=/bin/kill -HUP $MAINPID' CapabilityBoundingSet=; do
    grep -qxF "$setting" "$unit" || fail "the unit lacks $setting"
done
if systemd-analyze security --help 2>/dev/null | grep -q -- --offline; then
    (cd "$root" && systemd-analyze security --offline=yes --root="$root" --threshold=20 \
        usr/lib/systemd/system/hspaced.service) >"$tmp/security" 2>&1 ||
        fail "systemd rates the unit's exposure above 2.0: $(tail -3 "$tmp/security")"
else
    echo "check_packages: systemd-analyze security --offline is missing; the unit's score is not checked"
fi

# The installed programs: hspace finds the installed library, not the
# build tree's.
export LD_LIBRARY_PATH=$root$lib
ldd "$root/usr/bin/hspace" | grep -q "libqel_hspace.so.1 => $root/usr/" || fail "hspace links: $(ldd "$root/usr/bin/hspace")"
start_hspaced "$root/usr/bin/hspaced" --name packaged --quiet
hs() { timeout -k 5 "$WATCHDOG" "$root/usr/bin/hspace" --url "$url" --timeout 0 "$@" </dev/null; }
hs put pkg/a "from the package" || fail "installed hspace put"
[ "$(hs get pkg/a)" = "from the package" ] || fail "installed hspace get"
[ "$(hs ls 'pkg/*')" = "pkg/a" ] || fail "installed hspace ls"
hs ping | grep -q "^connected to packaged at $url" || fail "installed hspace ping"
[ "$(hs --version)" = "hspace ${version%-1}" ] || fail "installed hspace --version: $(hs --version)"
if [ -f "$root/usr/share/man/man1/hspace.1" ]; then
    for page in man1/hspace.1 man8/hspaced.8; do
        LC_ALL=C MANPAGER=cat MANWIDTH=80 timeout 20 man -l "$root/usr/share/man/$page" >"$tmp/man" 2>&1 ||
            fail "man -l $page"
        grep -q "EXAMPLES" "$tmp/man" || fail "$page has no examples"
    done
fi

# An application against the development package, through pkg-config,
# finding the library by its rpath at run time.
unset LD_LIBRARY_PATH
export PKG_CONFIG_PATH=$root$lib/pkgconfig
# shellcheck disable=SC2046 # pkg-config's flags are meant to split
quiet "$cc" -std=c99 -Wall -Wextra -Wpedantic -Werror -o "$tmp/consumer" "$src/tests/consumer/app/consumer.c" \
    $(pkg-config --cflags --libs qel_hspace) -Wl,-rpath,"$(pkg-config --variable=libdir qel_hspace)"
"$tmp/consumer" || fail "the application built against the packages"

kill -TERM "$svc"
wait_exit "$svc_fd" "$svc" 0
echo "check_packages: all passed"
