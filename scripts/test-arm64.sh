#!/usr/bin/env bash
# Cross-builds the project for 64-bit Arm and runs every test binary of that
# build on a real arm64 Linux kernel under qemu full-system emulation.
#
# qemu-user cannot be used: it does not implement bpf(2). So the script boots
# Debian's arm64 cloud kernel once with a small initramfs holding busybox, the
# test binaries and the shared libraries they need, and reads each binary's
# gtest summary and exit status from the serial console.
#
# Usage: bash scripts/test-arm64.sh    (as root; installs what is missing)
#        KOVRA_ARM64_TARGETS="kovrabpf_live_tests ..." bash scripts/test-arm64.sh
#                                      builds and runs only those test executables
set -euo pipefail

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
out=$root/build-arm64
build=$out/build
cache=$out/cache
initramfs=$out/initramfs
triplet=aarch64-linux-gnu
export DEBIAN_FRONTEND=noninteractive

die() { echo "test-arm64: $*" >&2; exit 1; }

apt_updated=
apt_update_once() {
    [[ $apt_updated ]] || apt-get update -qq
    apt_updated=1
}

# --- host packages --------------------------------------------------------
if ! dpkg --print-foreign-architectures | grep -qx arm64; then
    dpkg --add-architecture arm64
    apt_update_once
fi
missing=()
for pkg in cmake make cpio qemu-system-arm g++-$triplet \
           android-libbase-dev:arm64 android-liblog-dev:arm64 \
           libfmt-dev:arm64 libgtest-dev:arm64 \
           libbpf-dev:arm64 libnl-route-3-dev:arm64 \
           pkg-config; do
    [[ $(dpkg-query -W -f='${db:Status-Status}' "$pkg" 2>/dev/null) == installed ]] ||
        missing+=("$pkg")
done
if ((${#missing[@]})); then
    apt_update_once
    apt-get install -y -qq --no-install-recommends "${missing[@]}"
fi

# The kernel and busybox are only unpacked into the cache, never installed:
# an arm64 busybox or kernel package would replace or clutter the host's own.
fetch_deb() {  # fetch_deb PACKAGE DIR: unpack PACKAGE's files into DIR
    local tmp
    mkdir -p "$cache"
    tmp=$(mktemp -d "$cache/fetch.XXXXXX")
    chmod a+rwx "$tmp"  # apt downloads as its unprivileged _apt user
    apt_update_once
    (cd "$tmp" && apt-get download -qq "$1")
    dpkg-deb -x "$tmp"/*.deb "$tmp/root"
    # Moved into place only once complete: an interrupted unpack must not
    # pass for a cached one on the next run.
    rm -rf "$2"
    mv "$tmp/root" "$2"
    rm -rf "$tmp"
}
if ! compgen -G "$cache/kernel/boot/vmlinuz-*" >/dev/null; then
    apt_update_once
    # The meta package only points at the current versioned kernel package.
    kernel_pkg=$(apt-cache show --no-all-versions linux-image-cloud-arm64:arm64 |
                 sed -n 's/^Depends: //p' | tr ',' '\n' | grep -o 'linux-image-[^ ]*' | head -n1)
    [[ $kernel_pkg ]] || die "no arm64 cloud kernel package found"
    fetch_deb "$kernel_pkg:arm64" "$cache/kernel"
fi
if [[ ! -x $cache/busybox/bin/busybox ]]; then
    fetch_deb busybox-static:arm64 "$cache/busybox"
fi
vmlinuz=$(compgen -G "$cache/kernel/boot/vmlinuz-*" | head -n1)
kernel_version=${vmlinuz##*/vmlinuz-}
modules=$cache/kernel/lib/modules/$kernel_version

# --- cross build ----------------------------------------------------------
cmake -S "$root" -B "$build" \
      -DCMAKE_TOOLCHAIN_FILE="$root/cmake/$triplet.cmake" \
      -DCMAKE_BUILD_TYPE=RelWithDebInfo
read -ra targets <<<"${KOVRA_ARM64_TARGETS:-all}"
cmake --build "$build" -j"$(nproc)" --target "${targets[@]}"

# The exported symbols must be the same list on both architectures.
cmake -DNM="$triplet-nm" -DLIBRARY="$build/libkovrabpf.so" \
      -DEXPECTED="$root/tests/abi/kovrabpf.symbols" -P "$root/tests/abi/CheckExports.cmake"

# Every test executable of the build, so a new test family needs no edit here.
wanted='[^/]*'
[[ ${KOVRA_ARM64_TARGETS:-} ]] && wanted=${KOVRA_ARM64_TARGETS// /|}
mapfile -t tests < <(find "$build" -name CMakeFiles -prune -o \
                          -type f -name '*_tests' -perm -u+x -print | sort |
                     grep -E "/($wanted)\$")
((${#tests[@]})) || die "no *_tests executable in $build"

# --- initramfs ------------------------------------------------------------
rm -rf "$initramfs"
mkdir -p "$initramfs"/{bin,lib,tests,modules,proc,sys,dev,tmp}
cp "$cache/busybox/bin/busybox" "$initramfs/bin/"
install -m 755 "$root/scripts/arm64/init" "$initramfs/init"

# Shared libraries are resolved the way the loader on an arm64 Debian system
# would: the multiarch /lib/$triplet first (the cross toolchain's own libc in
# /usr/$triplet/lib is a different build and must not be picked), then each
# object's own RUNPATH, which is how the build's libraries are found.
readelf=$triplet-readelf
declare -A libs=()
add_needed() {
    local elf=$1 name dir found runpath
    local -a dirs=(/lib/$triplet /usr/lib/$triplet /usr/lib/$triplet/android) rp
    runpath=$("$readelf" -d "$elf" | sed -n 's/.*(R\(UN\)\{0,1\}PATH).*\[\(.*\)\]/\2/p')
    runpath=${runpath//'$ORIGIN'/$(dirname "$elf")}
    IFS=: read -ra rp <<<"$runpath"
    dirs+=("${rp[@]}")
    for name in $("$readelf" -d "$elf" | sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p'); do
        [[ -v libs[$name] ]] && continue
        found=
        for dir in "${dirs[@]}"; do
            [[ -e $dir/$name ]] && { found=$dir/$name; break; }
        done
        [[ $found ]] || die "$elf needs $name: not found"
        libs[$name]=$found
        add_needed "$found"
    done
}
for t in "${tests[@]}"; do
    interp=$("$readelf" -l "$t" | sed -n 's/.*program interpreter: \(.*\)\]/\1/p')
    [[ $interp == "/lib/${interp##*/}" ]] || die "$t: unexpected interpreter $interp"
    [[ ! -e $initramfs/tests/${t##*/} ]] || die "two test binaries named ${t##*/}"
    add_needed "$t"
    # Debug info only slows the emulated boot; the build keeps its own copy.
    $triplet-strip --strip-debug -o "$initramfs/tests/${t##*/}" "$t"
    echo "${t##*/}" >>"$initramfs/tests/list"
done
for name in "${!libs[@]}"; do
    $triplet-strip --strip-debug -o "$initramfs/lib/$name" "${libs[$name]}"
done

# The speeds tests build veth pairs; Debian's cloud kernel has veth as a
# module (uncompressed, and without modules.dep in the package, so the
# dependencies come from each module's own .modinfo).
: >"$initramfs/modules/order"
add_module() {
    local file dep
    grep -qx "$1.ko" "$initramfs/modules/order" && return
    file=$(find "$modules/kernel" -name "${1//_/[-_]}.ko" -print -quit)
    [[ $file ]] || die "no kernel module $1 in $modules"
    for dep in $("$readelf" -p .modinfo "$file" | sed -n 's/.*depends=//p' | tr ',' ' '); do
        add_module "$dep"
    done
    cp "$file" "$initramfs/modules/$1.ko"
    echo "$1.ko" >>"$initramfs/modules/order"
}
add_module veth

(cd "$initramfs" && find . | cpio -o -H newc --quiet) >"$out/initramfs.cpio"

# --- run ------------------------------------------------------------------
# Unknown key=value words on the kernel command line become init's
# environment: this hands CI=true to the tests (a skipped privileged test is
# a failure under CI).
cmdline="console=ttyAMA0 panic=-1 kpti=0 quiet"  # kpti costs ~7x per syscall under emulation
[[ ${CI:-} == true ]] && cmdline+=" CI=true"
console=$out/console.log
timeout 900 qemu-system-aarch64 -M virt -cpu cortex-a57 -smp 2 -m 1024 \
    -nographic -nic none -no-reboot \
    -kernel "$vmlinuz" -initrd "$out/initramfs.cpio" -append "$cmdline" \
    </dev/null | tee "$console" || true

# --- summary --------------------------------------------------------------
# A binary that crashed or never reported counts as one failed test (the one
# it was running), so the closing line never reads "0 failed" for a bad run.
tr -d '\r' <"$console" | awk '
    FNR == NR { order[++n] = $0; next }
    /^kovra-arm64: begin / { name = $3 }
    /^\[  PASSED  \] [0-9]+ tests?\./ { pass[name] = $4 }
    /^\[  FAILED  \] [0-9]+ tests?, listed below:/ { fail[name] = $4 }
    /^kovra-arm64: end / { status[$3] = $5 }
    /^kovra-arm64: done$/ { done = 1 }
    END {
        bad = !done
        if (!done) print "VM did not finish the run"
        for (i = 1; i <= n; i++) {
            t = order[i]
            if (!(t in status)) { verdict = "NO STATUS"; fail[t] = 1; bad = 1 }
            else if (status[t] != 0 && fail[t] == 0) { verdict = "CRASHED (status " status[t] ")"; fail[t] = 1; bad = 1 }
            else if (status[t] != 0 || fail[t] > 0) { verdict = "FAILED"; bad = 1 }
            else if (pass[t] == 0) { verdict = "RAN NO TEST"; bad = 1 }
            else verdict = "ok"
            printf "  %-40s %4d passed, %4d failed  %s\n", t, pass[t], fail[t], verdict
            passed += pass[t]; failed += fail[t]
        }
        printf "arm64: %d passed, %d failed\n", passed, failed
        exit bad
    }' "$initramfs/tests/list" -
