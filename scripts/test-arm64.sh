#!/usr/bin/env bash
# Cross-builds the project for 64-bit Arm and runs every test binary of that
# build on real arm64 Linux kernels under qemu full-system emulation, one per
# kernel generation that devices run.
#
# qemu-user cannot be used: it does not implement bpf(2). So the script boots
# Debian's arm64 cloud kernel of each generation with a small initramfs
# holding busybox, the test binaries, the shared libraries they need and the
# kernel's own modules, and reads each binary's gtest summary and exit status
# from the serial console.
#
# Usage: bash scripts/test-arm64.sh [KERNEL...]   (as root; installs what is missing)
#        KERNEL is a generation: 5.10, 6.1 or 6.12; all three by default, or
#        those listed in KOVRA_ARM64_KERNELS ("6.12" for a quick run)
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

# Each generation is the cloud kernel of the Debian release that ships it:
# 5.10 (Android 12/13 launches), 6.1 (Android 14/15), 6.12 (Android 16).
declare -A suites=([5.10]=bullseye [6.1]=bookworm [6.12]=trixie)
generations="5.10 6.1 6.12"
if (($#)); then
    kernels=("$@")
else
    read -ra kernels <<<"${KOVRA_ARM64_KERNELS:-$generations}"
fi
for gen in "${kernels[@]}"; do
    [[ -v suites[$gen] ]] || die "unknown kernel generation '$gen' (known: $generations)"
done

# --- host packages --------------------------------------------------------
if ! dpkg --print-foreign-architectures | grep -qx arm64; then
    dpkg --add-architecture arm64
    apt-get update -qq
fi
missing=()
for pkg in cmake make cpio xz-utils qemu-system-arm g++-$triplet \
           android-libbase-dev:arm64 android-liblog-dev:arm64 \
           libfmt-dev:arm64 libgtest-dev:arm64 \
           libbpf-dev:arm64 libnl-route-3-dev:arm64 \
           pkg-config; do
    [[ $(dpkg-query -W -f='${db:Status-Status}' "$pkg" 2>/dev/null) == installed ]] ||
        missing+=("$pkg")
done
if ((${#missing[@]})); then
    apt-get update -qq
    apt-get install -y -qq --no-install-recommends "${missing[@]}"
fi

# --- kernels and busybox ----------------------------------------------------
# They are only unpacked into the cache, never installed: an arm64 busybox or
# kernel package would replace or clutter the host's own. They come through a
# package list of our own per Debian release, in the cache, from the mirror the
# machine's sources name; the machine's sources, lists and package cache are
# never written.
mirror=$(grep -rhoE 'https?://[^ ]+/debian/?( |$)' /etc/apt/sources.list \
             /etc/apt/sources.list.d/ 2>/dev/null | head -n1 | tr -d ' ') || true
mirror=${mirror:-http://deb.debian.org/debian}
declare -A updated=()
private_apt() {  # private_apt SUITE apt-get|apt-cache ARGS...
    local suite=$1 dir=$cache/apt/$1
    shift
    mkdir -p "$dir/lists/partial" "$dir/cache/archives/partial"
    echo "deb [arch=arm64 signed-by=/usr/share/keyrings/debian-archive-keyring.gpg]" \
         "$mirror $suite main" >"$dir/sources.list"
    # The files are root's, like the cache: apt need not drop to its _apt user.
    local -a options=(-o Dir::Etc::sourcelist="$dir/sources.list" -o Dir::Etc::sourceparts=-
                      -o Dir::State::Lists="$dir/lists" -o Dir::Cache="$dir/cache"
                      -o APT::Sandbox::User=root)
    if [[ ! -v updated[$suite] ]]; then
        apt-get "${options[@]}" update -qq
        updated[$suite]=1
    fi
    "$@" "${options[@]}"
}
fetch_deb() {  # fetch_deb SUITE PACKAGE DIR: unpack PACKAGE's files into DIR
    local tmp
    mkdir -p "$cache"
    tmp=$(mktemp -d "$cache/fetch.XXXXXX")
    (cd "$tmp" && private_apt "$1" apt-get download -qq "$2")
    dpkg-deb -x "$tmp"/*.deb "$tmp/root"
    dpkg-deb -f "$tmp"/*.deb Version >"$tmp/root/.version"
    # Moved into place only once complete: an interrupted unpack must not
    # pass for a cached one on the next run.
    rm -rf "$3"
    mv "$tmp/root" "$3"
    rm -rf "$tmp"
}
for gen in "${kernels[@]}"; do
    compgen -G "$cache/kernel-$gen/boot/vmlinuz-*" >/dev/null && continue
    # The meta package only points at the release's current versioned kernel.
    pkg=$(private_apt "${suites[$gen]}" apt-cache show --no-all-versions \
              linux-image-cloud-arm64:arm64 |
          sed -n 's/^Depends: //p' | tr ',' '\n' | grep -o 'linux-image-[^ ]*' | head -n1)
    [[ $pkg ]] || die "no arm64 cloud kernel package in ${suites[$gen]}"
    fetch_deb "${suites[$gen]}" "$pkg:arm64" "$cache/kernel-$gen"
done
if [[ ! -x $cache/busybox/bin/busybox ]]; then
    fetch_deb bookworm busybox-static:arm64 "$cache/busybox"
fi

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
# One image with everything but the kernel modules, shared by every kernel;
# each kernel's modules are a small archive of their own appended to it (the
# kernel unpacks concatenated archives one over the other).
rm -rf "$initramfs"
mkdir -p "$initramfs"/{bin,lib,tests,proc,sys,dev,tmp}
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
(cd "$initramfs" && find . | cpio -o -H newc --quiet) >"$out/initramfs.cpio"

# The speeds and live tests build veth pairs; Debian's cloud kernels have veth
# as a module, without modules.dep in the package, so the dependencies come
# from each module's own .modinfo. 6.12's modules are xz-compressed, which
# busybox's insmod cannot read: they go in plain.
add_module() {  # add_module NAME: NAME and what it depends on into $staged
    local file dep
    grep -qx "$1.ko" "$staged/modules/order" && return
    file=$(find "$moddir/kernel" \( -name "${1//_/[-_]}.ko" -o -name "${1//_/[-_]}.ko.xz" \) \
                -print -quit)
    [[ $file ]] || die "no kernel module $1 in $moddir"
    if [[ $file == *.xz ]]; then
        xz -dc "$file" >"$staged/modules/$1.ko"
    else
        cp "$file" "$staged/modules/$1.ko"
    fi
    for dep in $("$readelf" -p .modinfo "$staged/modules/$1.ko" |
                 sed -n 's/.*depends=//p' | tr ',' ' '); do
        add_module "$dep"
    done
    echo "$1.ko" >>"$staged/modules/order"
}
declare -A versions=()
for gen in "${kernels[@]}"; do
    kernel=$cache/kernel-$gen
    version=$(<"$kernel/.version")
    version=${version%%-*}  # the upstream release, without Debian's revision
    [[ $version == "$gen".* ]] || die "the $gen kernel package is $version"
    versions[$gen]=$version
    release=$(compgen -G "$kernel/boot/vmlinuz-*" | head -n1)
    release=${release##*/vmlinuz-}
    moddir=$kernel/lib/modules/$release
    [[ -d $moddir ]] || moddir=$kernel/usr/lib/modules/$release
    [[ -d $moddir ]] || die "no modules of $release in $kernel"
    staged=$out/kernel-$gen
    rm -rf "$staged"
    mkdir -p "$staged/modules"
    : >"$staged/modules/order"
    add_module veth
    (cd "$staged" && find modules | cpio -o -H newc --quiet) |
        cat "$out/initramfs.cpio" - >"$staged/initramfs.cpio"
    ln -s "$kernel/boot/vmlinuz-$release" "$staged/vmlinuz"
done

# --- run ------------------------------------------------------------------
# Unknown key=value words on the kernel command line become init's
# environment: this hands CI=true to the tests (a skipped privileged test is
# a failure under CI).
cmdline="console=ttyAMA0 panic=-1 kpti=0 quiet"  # kpti costs ~7x per syscall under emulation
[[ ${CI:-} == true ]] && cmdline+=" CI=true"
# The kernels boot side by side: much of a run is the tests waiting for
# traffic and timers, so three VMs on two cores take about as long as one
# (measured: 43 s together against 107 s one after the other).
pids=()
# No VM outlives the script, however it ends.
trap 'kill "${pids[@]}" 2>/dev/null || true' EXIT
trap 'exit 130' INT TERM
for gen in "${kernels[@]}"; do
    timeout 900 qemu-system-aarch64 -M virt -cpu cortex-a57 -smp 2 -m 1024 \
        -nographic -nic none -no-reboot \
        -kernel "$out/kernel-$gen/vmlinuz" -initrd "$out/kernel-$gen/initramfs.cpio" \
        -append "$cmdline" </dev/null >"$out/kernel-$gen/console.log" 2>&1 &
    pids+=($!)
done
for pid in "${pids[@]}"; do wait "$pid" || true; done
pids=()
for gen in "${kernels[@]}"; do
    echo "== arm64 kernel ${versions[$gen]}"
    cat "$out/kernel-$gen/console.log"
done

# --- summary --------------------------------------------------------------
# A binary that crashed or never reported counts as one failed test (the one
# it was running), so a summary line never reads "0 failed" for a bad run.
status=0
passed=0
failed=0
for gen in "${kernels[@]}"; do
    summary=$(tr -d '\r' <"$out/kernel-$gen/console.log" |
              awk -v kernel="arm64 ${versions[$gen]}" '
        FNR == NR { order[++n] = $0; next }
        /^kovra-arm64: begin / { name = $3 }
        /^\[  PASSED  \] [0-9]+ tests?\./ { pass[name] = $4 }
        /^\[  FAILED  \] [0-9]+ tests?, listed below:/ { fail[name] = $4 }
        /^kovra-arm64: end / { status[$3] = $5 }
        /^kovra-arm64: done$/ { done = 1 }
        END {
            bad = !done
            if (!done) print kernel ": VM did not finish the run"
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
            printf "%s: %d passed, %d failed\n", kernel, passed, failed
            exit bad
        }' "$initramfs/tests/list" -) || status=1
    echo "$summary"
    read -r p f < <(tail -n1 <<<"$summary" | sed 's/.*: \([0-9]*\) passed, \([0-9]*\) failed$/\1 \2/')
    passed=$((passed + p))
    failed=$((failed + f))
done
echo "arm64: $passed passed, $failed failed"
exit $status
