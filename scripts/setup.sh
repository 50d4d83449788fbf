#!/usr/bin/env bash
# Installs what building and testing libkovrabpf needs on a Debian machine. Safe to run again:
# it only asks apt for packages that are missing.
set -euo pipefail

packages=(
    cmake g++ make binutils pkg-config
    android-libbase-dev android-liblog-dev libfmt-dev
    libgtest-dev libbenchmark-dev
    clang libclang-rt-14-dev valgrind
    jq
    libcli11-dev nlohmann-json3-dev
    libbpf-dev libnl-route-3-dev
    blueprint-tools golang-go golang-android-soong-dev golang-github-google-blueprint-dev
    golang-github-golang-protobuf-1-3-dev ninja-build python3 git
    clang-14 libc++-14-dev libc++abi-14-dev libc6-dev-arm64-cross libc6-dev-armhf-cross
    clang-format-14
    "$@"
)

missing=()
for p in "${packages[@]}"; do
    dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done
if ((${#missing[@]})); then
    echo "setup: installing ${missing[*]}"
    sudo_cmd=()
    [[ $(id -u) -eq 0 ]] || sudo_cmd=(sudo)
    "${sudo_cmd[@]}" apt-get update -q
    DEBIAN_FRONTEND=noninteractive "${sudo_cmd[@]}" apt-get install -y -q --no-install-recommends "${missing[@]}"
fi
