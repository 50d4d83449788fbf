#!/usr/bin/env bash
# Checks on the desk that Android.bp describes a device build that works, with Debian packages
# only (scripts/setup.sh installs them):
#  1. bpfmt -d Android.bp prints nothing;
#  2. Soong's own soong_build, built from Debian's Go source of Soong with its cc and genrule
#     module types, loads Android.bp as a vendor project beside stubs of the platform modules
#     it depends on (scripts/android/platform-stub.bp), and rejects a misspelt property, a
#     property of the wrong type and a dependency on a library vendor modules may not use;
#  3. every compile command Soong writes for the project's sources, for every module and
#     architecture, passes as a clang syntax check against libc++ with Soong's own flags
#     (scripts/android/compile-check.py), libbase being the platform's newer declarations
#     (scripts/android/libbase/).
# It builds nothing for a device. Exit status: 0 when all pass, 1 otherwise.
#
# Usage: bash scripts/check-android-build.sh    (soong_build is cached in build/android/)
set -euo pipefail

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
cache=$root/build/android
tree=$cache/tree
project=vendor/kovra
die() { echo "check-android-build: $*" >&2; exit 1; }
cd "$root"
git rev-parse --is-inside-work-tree >/dev/null 2>&1 || die "run it in a git checkout: it copies the files git knows"

echo "== device build (Soong, clang 14, libc++)"
echo "-- bpfmt"
format=$(bpfmt -d Android.bp) || die "bpfmt cannot read Android.bp"
[[ -z $format ]] || { echo "$format"; die "Android.bp is not as bpfmt formats it (bpfmt -w Android.bp)"; }

# soong_build from source: Debian's binary registers no cc_* module type, its main package does
# not import them. A blank import beside a copy of that package does; rebuilt when a package
# it comes from changes.
soong=$cache/soong_build
gopath=$cache/gopath
modules=$'package main\n\nimport (\n\t_ "android/soong/cc"\n\t_ "android/soong/genrule"\n)'
key=$(dpkg-query -W -f='${Package} ${Version}\n' golang-go golang-android-soong-dev \
    golang-github-google-blueprint-dev golang-github-golang-protobuf-1-3-dev && echo "$modules")
if [[ ! -x $soong || $(cat "$soong.key" 2>/dev/null) != "$key" ]]; then
    echo "-- building soong_build"
    rm -rf "$gopath" && mkdir -p "$gopath/src/soong_build"
    cp /usr/share/gocode/src/android/soong/cmd/soong_build/*.go "$gopath/src/soong_build/"
    rm -f "$gopath"/src/soong_build/*_test.go
    echo "$modules" >"$gopath/src/soong_build/modules.go"
    (cd "$gopath/src/soong_build" && GO111MODULE=off GOPATH="$gopath:/usr/share/gocode" \
        GOCACHE="$gopath/cache" go build -o "$soong" .) || die "cannot build soong_build"
    rm -rf "$gopath"
    echo "$key" >"$soong.key"
fi

# The throw-away tree: the project's files (tracked and new, as in the working tree) under a
# vendor path, the platform stubs, and links from the folders the stubs export to the Debian
# headers that stand in for the platform's.
rm -rf "$tree"
mkdir -p "$tree/$project" "$tree/platform" "$tree/out/soong/.bootstrap/bin" "$tree/out/.module_paths"
git ls-files -z --cached --others --exclude-standard |
    tar --null --ignore-failed-read -T - -cf - 2>/dev/null | tar -x -C "$tree/$project"
cp scripts/android/platform-stub.bp "$tree/platform/Android.bp"
: >"$tree/Android.bp"
link() {  # link TREE_PATH TARGET
    mkdir -p "$(dirname "$tree/$1")"
    ln -s "$2" "$tree/$1"
}
link platform/libcxx/include /usr/lib/llvm-14/include/c++/v1
link platform/liblog/include/android /usr/include/android/android
link platform/liblog/include/log /usr/include/android/log
mkdir -p "$tree/platform/libbase/include/android-base"
for header in /usr/include/android/android-base/*; do
    link "platform/libbase/include/android-base/${header##*/}" "$header"
done
rm "$tree/platform/libbase/include/android-base/result.h"
cp scripts/android/libbase/android-base/result.h "$tree/platform/libbase/include/android-base/"
link platform/libnetutils/include "$tree/$project/speeds/host"
link platform/fmtlib/include/fmt /usr/include/fmt
link platform/googletest/include/gtest /usr/include/gtest
link "$project/third_party/CLI11/CLI" /usr/include/CLI
link "$project/third_party/nlohmann_json/nlohmann" /usr/include/nlohmann

# An arm64 device with a 32-bit Arm second architecture, vendor modules built against the
# current VNDK.
cat >"$tree/out/soong/soong.variables" <<'JSON'
{
    "Platform_sdk_version": 30,
    "Platform_sdk_codename": "REL",
    "Platform_sdk_final": true,
    "Platform_version_active_codenames": [],
    "Platform_vndk_version": "30",
    "DeviceVndkVersion": "current",
    "HostArch": "x86_64",
    "HostSecondaryArch": "x86",
    "DeviceName": "generic_arm64",
    "DeviceArch": "arm64",
    "DeviceArchVariant": "armv8-a",
    "DeviceCpuVariant": "generic",
    "DeviceAbi": ["arm64-v8a"],
    "DeviceSecondaryArch": "arm",
    "DeviceSecondaryArchVariant": "armv8-a",
    "DeviceSecondaryCpuVariant": "generic",
    "DeviceSecondaryAbi": ["armeabi-v7a", "armeabi"]
}
JSON
printf '%s\n' "$project/Android.bp" platform/Android.bp >"$tree/out/.module_paths/Android.bp.list"
# Soong finds its own files from the path it runs by, so it runs from its place in out/soong as
# the platform's bootstrap runs it.
cp "$soong" "$tree/out/soong/.bootstrap/bin/soong_build"
run_soong() {
    (cd "$tree" && out/soong/.bootstrap/bin/soong_build -b out/soong -n out \
        -d out/soong/build.ninja.d -l out/.module_paths/Android.bp.list \
        -globFile out/soong/.bootstrap/build-globs.ninja -o out/soong/build.ninja Android.bp)
}

echo "-- Soong loads Android.bp"
run_soong || die "Soong rejects Android.bp"
cp "$tree/out/soong/build.ninja" "$cache/build.ninja"

echo "-- Soong rejects what a device build rejects (the real file loads, so each change is the cause)"
bp=$tree/$project/Android.bp
cp "$bp" "$cache/Android.bp.orig"
control() {  # control WHAT SED_SCRIPT
    sed -e "$2" "$cache/Android.bp.orig" >"$bp"
    ! cmp -s "$bp" "$cache/Android.bp.orig" || die "the control '$1' no longer applies to Android.bp"
    if run_soong >"$cache/control.log" 2>&1; then
        die "Soong accepted Android.bp with $1"
    fi
    echo "rejected $1: $(grep -m1 -i error "$cache/control.log" | sed 's/\x1b\[[0-9;]*m//g')"
}
control "a misspelt property" '0,/local_include_dirs:/s//local_include_dir:/'
control "a property of the wrong type" '0,/cpp_std: "\([^"]*\)"/s//cpp_std: ["\1"]/'
control "a dependency on a system-only library" '0,/shared_libs: \["libnetutils"\]/s//shared_libs: ["libnetutils", "libnetd_client"]/'
cp "$cache/Android.bp.orig" "$bp"

echo "-- every source compiles as Soong compiles it (clang 14, libc++)"
# The platform's vendor snapshot writes one output twice; the compile database does not care.
ninja -w dupbuild=warn -f "$cache/build.ninja" -t compdb g.cc.cc 2>/dev/null |
    python3 scripts/android/compile-check.py "$tree" || die "a source does not compile as the device build compiles it"
echo "check-android-build: pass"
