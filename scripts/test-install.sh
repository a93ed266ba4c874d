#!/usr/bin/env bash
# Tests libafehal as other projects take it:
#  1. Android.bp builds the same sources, flags and data as CMake (and the
#     check notices when it does not);
#  2. `cmake --install` into a staging prefix: the files, the SONAME, the
#     man page;
#  3. a consumer (tests/consumer) built against the staged copy with CMake's
#     find_package and with pkg-config, run linked and loading the library
#     by name with dlopen;
#  4. a consumer asking for a newer version gets a clear version error;
#  5. installing over an older copy leaves one consistent 1.19.0, and a
#     program built against the older copy keeps running;
#  6. the Debian packages: contents, dependencies, install into a scratch
#     root with dpkg --root, a consumer built against that root, removal.
# Everything happens under build-install/ in the repository.
set -euo pipefail
cd "$(dirname "$0")/.."
root_dir=$(pwd)
work=$root_dir/build-install
jobs=${JOBS:-$(nproc)}
version=1.19.0

step() { printf '\n== %s\n' "$*"; }
fail() {
  echo "test-install: FAIL: $*" >&2
  exit 1
}
# quiet command...: runs it, showing its output only when it fails.
quiet() {
  local out
  out=$("$@" 2>&1) || fail "$* failed:"$'\n'"$out"
}
# expect_failure "what" "text the output must hold" command...
expect_failure() {
  local what=$1 wanted=$2 out
  shift 2
  if out=$("$@" 2>&1); then
    fail "$what succeeded"
  fi
  grep -qF -- "$wanted" <<<"$out" || fail "$what failed without saying '$wanted':"$'\n'"$out"
  echo "refused as expected: $what"
}
# The real file a consumer's report line "consumer: libafehal 1.19 from PATH"
# names.
loaded_file() { readlink -f "$(sed -n 's/^consumer: libafehal [0-9.]* from //p' <<<"$1")"; }
# expect_loaded FILE command...: runs a consumer, which must load FILE. The
# library's Android log copies (its error lines on stderr here) go to a file.
expect_loaded() {
  local wanted=$1 out
  shift
  out=$("$@" 2>>"$work/consumer-stderr.log") ||
    fail "$* failed:"$'\n'"$(tail -n 5 "$work/consumer-stderr.log")"
  [ "$(loaded_file "$out")" = "$(readlink -f "$wanted")" ] ||
    fail "$* loaded $(loaded_file "$out"), not $wanted"
  echo "$out ($(basename "$(loaded_file "$out")"))"
}
rm -rf "$work"/consumer-* "$work/consumer-stderr.log"

step "Build (prefix /usr, tool and man page, no tests)"
quiet cmake -S . -B "$work/build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_INSTALL_PREFIX=/usr \
  -DAFEHAL_TESTS=OFF -DAFEHAL_BENCH=OFF -DAFEHAL_TOOLS=ON
cmake --build "$work/build" -j "$jobs"

step "Android.bp against CMake"
python3 scripts/check-android-bp.py "$work/build"
# The check must notice a source that only CMake builds.
sed '/"afe\/frame.cpp",/d' Android.bp >"$work/Android.bp.missing-source"
expect_failure "Android.bp without afe/frame.cpp" "afe/frame.cpp: in CMake sources, not in Android.bp srcs" \
  python3 scripts/check-android-bp.py "$work/build" --android-bp "$work/Android.bp.missing-source"

step "cmake --install into a staging prefix"
stage=$work/stage
rm -rf "$stage"
quiet cmake --install "$work/build" --prefix "$stage"
soname_link=$(find "$stage" -name 'libafehal.so.1' -print -quit)
[ -n "$soname_link" ] || fail "no libafehal.so.1 installed"
libdir=$(dirname "$soname_link")
for f in include/afehal/afehal.h bin/afehal-tool share/man/man1/afehal-tool.1.gz; do
  [ -f "$stage/$f" ] || fail "$f not installed"
done
[ -f "$libdir/pkgconfig/afehal.pc" ] || fail "pkgconfig/afehal.pc not installed"
for f in afehal-config.cmake afehal-config-version.cmake afehal-targets.cmake; do
  [ -f "$libdir/cmake/afehal/$f" ] || fail "cmake/afehal/$f not installed"
done
[ "$(readlink "$libdir/libafehal.so")" = libafehal.so.1 ] || fail "libafehal.so does not link to libafehal.so.1"
[ "$(readlink "$libdir/libafehal.so.1")" = libafehal.so.$version ] || fail "libafehal.so.1 does not link to libafehal.so.$version"
soname=$(readelf -d "$libdir/libafehal.so.$version" | sed -n 's/.*(SONAME).*\[\(.*\)\]/\1/p')
[ "$soname" = libafehal.so.1 ] || fail "SONAME is '$soname'"
zcat "$stage/share/man/man1/afehal-tool.1.gz" | grep -q '^\.TH AFEHAL-TOOL "1" ".*" "afehal-tool '$version'"' ||
  fail "the man page has no title line for afehal-tool $version"
for command in frames fw-info limits inspect; do
  zcat "$stage/share/man/man1/afehal-tool.1.gz" | grep -q "^Usage: afehal-tool $command" ||
    fail "the man page lacks the help of $command"
done
"$stage/bin/afehal-tool" --version | grep -qx "afehal-tool $version" || fail "afehal-tool --version"
echo "installed: SONAME $soname, $(cd "$stage" && find . -type f -o -type l | sort | tr '\n' ' ')"

step "Consumer built with find_package(afehal 1.19 CONFIG)"
quiet cmake -S tests/consumer -B "$work/consumer-cmake" -G Ninja -DCMAKE_PREFIX_PATH="$stage"
quiet cmake --build "$work/consumer-cmake"
expect_loaded "$libdir/libafehal.so.$version" "$work/consumer-cmake/consumer"
for name in libafehal.so libafehal.so.1; do
  expect_loaded "$libdir/libafehal.so.$version" \
    env LD_LIBRARY_PATH="$libdir" "$work/consumer-cmake/consumer_dlopen" dlopen $name
done

step "Consumer built with pkg-config"
export PKG_CONFIG_PATH=$libdir/pkgconfig
[ "$(pkg-config --modversion afehal)" = $version ] || fail "pkg-config --modversion afehal"
mkdir -p "$work/consumer-pc"
# shellcheck disable=SC2046 # the flags are words
cc -o "$work/consumer-pc/consumer" tests/consumer/consumer.c $(pkg-config --cflags --libs afehal) -ldl
# shellcheck disable=SC2046
cc -o "$work/consumer-pc/consumer_dlopen" -DAFEHAL_CONSUMER_DLOPEN_ONLY tests/consumer/consumer.c \
  $(pkg-config --cflags afehal) -ldl
expect_loaded "$libdir/libafehal.so.$version" env LD_LIBRARY_PATH="$libdir" "$work/consumer-pc/consumer"
expect_loaded "$libdir/libafehal.so.$version" \
  env LD_LIBRARY_PATH="$libdir" "$work/consumer-pc/consumer_dlopen" dlopen libafehal.so
# The dlopen build must not have linked the library: it loads it itself.
if readelf -d "$work/consumer-pc/consumer_dlopen" | grep -q 'NEEDED.*libafehal'; then
  fail "consumer_dlopen is linked against libafehal"
fi

step "A consumer asking for a newer version"
expect_failure "find_package(afehal 2.0)" \
  'requested version "2.0"' \
  cmake -S tests/consumer -B "$work/consumer-2.0" -DCMAKE_PREFIX_PATH="$stage" -DAFEHAL_WANTED=2.0
expect_failure "find_package(afehal 1.20)" "afehal-config.cmake, version: $version" \
  cmake -S tests/consumer -B "$work/consumer-1.20" -DCMAKE_PREFIX_PATH="$stage" -DAFEHAL_WANTED=1.20
# An older minor version is accepted.
quiet cmake -S tests/consumer -B "$work/consumer-1.0" -DCMAKE_PREFIX_PATH="$stage" -DAFEHAL_WANTED=1.0
if pkg-config --atleast-version=2.0 afehal; then fail "pkg-config --atleast-version=2.0 succeeded"; fi
pkg-config --atleast-version=1.19 afehal || fail "pkg-config --atleast-version=1.19 failed"
expect_failure "pkg-config afehal >= 2.0" "Package 'afehal' has version '$version', required version is '>= 2.0'" \
  pkg-config --print-errors --cflags 'afehal >= 2.0'

step "Installing over an older copy"
# The older copy: the same layout as an install of 1.18.0.
old=$work/over-older
rm -rf "$old"
cp -a "$stage" "$old"
old_libdir=$old/${libdir#"$stage"/}
mv "$old_libdir/libafehal.so.$version" "$old_libdir/libafehal.so.1.18.0"
ln -sfn libafehal.so.1.18.0 "$old_libdir/libafehal.so.1"
sed -i "s/$version/1.18.0/g" "$old_libdir"/cmake/afehal/*.cmake "$old_libdir/pkgconfig/afehal.pc"
expect_failure "find_package(afehal 1.19) against 1.18.0" "version: 1.18.0" \
  cmake -S tests/consumer -B "$work/consumer-older-1.19" -DCMAKE_PREFIX_PATH="$old"
quiet cmake -S tests/consumer -B "$work/consumer-older" -G Ninja -DCMAKE_PREFIX_PATH="$old" \
  -DAFEHAL_WANTED=1.18
quiet cmake --build "$work/consumer-older"
expect_loaded "$old_libdir/libafehal.so.1.18.0" "$work/consumer-older/consumer"
quiet cmake --install "$work/build" --prefix "$old"
[ "$(readlink -f "$old_libdir/libafehal.so")" = "$old_libdir/libafehal.so.$version" ] ||
  fail "libafehal.so still leads to $(readlink -f "$old_libdir/libafehal.so")"
[ "$(PKG_CONFIG_PATH=$old_libdir/pkgconfig pkg-config --modversion afehal)" = $version ] ||
  fail "afehal.pc still says $(PKG_CONFIG_PATH=$old_libdir/pkgconfig pkg-config --modversion afehal)"
# Built against 1.18, it now runs on 1.19.0 through the unchanged SONAME.
expect_loaded "$old_libdir/libafehal.so.$version" "$work/consumer-older/consumer"
rm -rf "$work/consumer-older-1.19"
quiet cmake -S tests/consumer -B "$work/consumer-older-1.19" -G Ninja -DCMAKE_PREFIX_PATH="$old"
quiet cmake --build "$work/consumer-older-1.19"
expect_loaded "$old_libdir/libafehal.so.$version" "$work/consumer-older-1.19/consumer"

step "Debian packages (CPack)"
rm -f "$work"/build/*.deb
(cd "$work/build" && quiet cpack -G DEB)
arch=$(dpkg --print-architecture)
rel_libdir=${libdir#"$stage"/} # lib/<multiarch> on Debian
lib_deb=$work/build/libafehal1_${version}_$arch.deb
dev_deb=$work/build/libafehal-dev_${version}_$arch.deb
tools_deb=$work/build/afehal-tools_${version}_$arch.deb
contents() { dpkg-deb -c "$1" | awk '{print $6}' | grep -v '/$' | sort | tr '\n' ' '; }
expect_contents() {
  local got
  got=$(contents "$1")
  [ "$got" = "$2" ] || fail "$(basename "$1") holds: $got"$'\n'"expected: $2"
  echo "$(basename "$1"): $got"
}
l=./usr/$rel_libdir
expect_contents "$lib_deb" "$l/libafehal.so.1 $l/libafehal.so.$version "
expect_contents "$dev_deb" "./usr/include/afehal/afehal.h $l/cmake/afehal/afehal-config-version.cmake \
$l/cmake/afehal/afehal-config.cmake $l/cmake/afehal/afehal-targets-relwithdebinfo.cmake \
$l/cmake/afehal/afehal-targets.cmake $l/libafehal.so $l/pkgconfig/afehal.pc "
expect_contents "$tools_deb" "./usr/bin/afehal-tool ./usr/share/man/man1/afehal-tool.1.gz "
depends() { dpkg-deb -f "$1" Depends; }
for deb in "$lib_deb" "$tools_deb"; do
  depends "$deb" | grep -q 'android-liblog (>= ' || fail "$(basename "$deb") does not depend on liblog"
  echo "$(basename "$deb") depends on: $(depends "$deb")"
done
[ "$(depends "$dev_deb")" = "libafehal1 (= $version)" ] || fail "libafehal-dev depends on: $(depends "$dev_deb")"
echo "$(basename "$dev_deb") depends on: $(depends "$dev_deb")"
# The packaged afehal.pc names /usr, so pkg-config leaves the system paths out.
dpkg-deb --fsys-tarfile "$dev_deb" | tar -xO "$l/pkgconfig/afehal.pc" | grep -qx 'prefix=/usr' ||
  fail "the packaged afehal.pc does not say prefix=/usr"
[ "$(dpkg-deb --ctrl-tarfile "$lib_deb" | tar -xO ./shlibs)" = "libafehal 1 libafehal1 (>= $version)" ] ||
  fail "libafehal1 declares no shlibs entry for libafehal.so.1"

step "Installing the packages into a scratch root with dpkg --root"
# The scratch root's package database knows the packages ours depend on as
# the host has them installed (their status, no files), so dpkg checks every
# dependency against a real Debian package and version. Maintainer scripts
# (ldconfig) run outside the root, which holds no shell.
scratch=$work/scratch-root
new_root() {
  rm -rf "$scratch"
  mkdir -p "$scratch/var/lib/dpkg/info" "$scratch/var/lib/dpkg/updates"
  touch "$scratch/var/lib/dpkg/available"
  local deps
  deps=$(for deb in "$lib_deb" "$tools_deb"; do depends "$deb"; done | tr ',' '\n' |
    sed 's/^ *//; s/ .*//' | sort -u)
  for pkg in $deps; do
    dpkg-query -s "$pkg:$arch" 2>/dev/null || dpkg-query -s "$pkg" ||
      fail "dependency $pkg is not installed here"
    echo
    touch "$scratch/var/lib/dpkg/info/$pkg:$arch.list" "$scratch/var/lib/dpkg/info/$pkg.list"
  done >"$scratch/var/lib/dpkg/status"
}
scratch_dpkg() { dpkg --root="$scratch" --force-script-chrootless --log=/dev/null "$@"; }
new_root
expect_failure "libafehal-dev without libafehal1" "depends on libafehal1 (= $version)" \
  scratch_dpkg -i "$dev_deb"
new_root
scratch_dpkg -i "$lib_deb" "$dev_deb" "$tools_deb"
for pkg in libafehal1 libafehal-dev afehal-tools; do
  dpkg-query --admindir="$scratch/var/lib/dpkg" -W -f='${Package} ${Version} ${Status}\n' "$pkg" |
    grep -qx "$pkg $version install ok installed" || fail "$pkg is not installed in the scratch root"
done
echo "installed in $scratch: libafehal1 libafehal-dev afehal-tools $version"
scratch_lib=$scratch/usr/$rel_libdir
"$scratch/usr/bin/afehal-tool" --version | grep -qx "afehal-tool $version" || fail "packaged afehal-tool --version"
"$scratch/usr/bin/afehal-tool" limits >/dev/null || fail "packaged afehal-tool limits"
mkdir -p "$work/consumer-deb"
# shellcheck disable=SC2046
cc -o "$work/consumer-deb/consumer" tests/consumer/consumer.c \
  $(PKG_CONFIG_SYSROOT_DIR=$scratch PKG_CONFIG_PATH=$scratch_lib/pkgconfig pkg-config --cflags --libs afehal) -ldl
expect_loaded "$scratch_lib/libafehal.so.$version" \
  env LD_LIBRARY_PATH="$scratch_lib" "$work/consumer-deb/consumer"
quiet cmake -S tests/consumer -B "$work/consumer-deb-cmake" -G Ninja -DCMAKE_PREFIX_PATH="$scratch/usr"
quiet cmake --build "$work/consumer-deb-cmake"
expect_loaded "$scratch_lib/libafehal.so.$version" "$work/consumer-deb-cmake/consumer"
scratch_dpkg --purge afehal-tools libafehal-dev libafehal1
left=$(find "$scratch" -path "$scratch/var" -prune -o \( -type f -o -type l \) -print)
[ -z "$left" ] || fail "files left after purging the packages: $left"
echo "purged: no file left in the scratch root"

step "Install test passed"
