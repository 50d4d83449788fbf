#!/usr/bin/env python3
"""Runs, as clang syntax checks on the desk, every compile command that Soong wrote for the
project's sources: the compile database of build.ninja (ninja -t compdb) on stdin, the
throw-away tree the commands run in as the argument. Each command keeps Soong's flags as they
are, warnings, -std, -fno-exceptions, -fno-rtti, defines and include folders in Soong's order;
only what names the platform's toolchain changes: the desk's clang 14 replaces the prebuilt one,
a Debian C library for the same architecture replaces bionic (with the one bionic header
the sources reach for beside it, scripts/android/bionic), __ANDROID__ is defined as the
device triple defines it, and -c becomes -fsyntax-only. Exits 1 when a source fails."""
import json
import os
import shlex
import subprocess
import sys
from concurrent.futures import ThreadPoolExecutor

PROJECT = "vendor/kovra/"
BIONIC = os.path.join(os.path.dirname(os.path.abspath(__file__)), "bionic")

# Device triple prefix -> the desk triple of the same architecture and its C library headers.
TARGETS = {
    "aarch64-linux-android": ("aarch64-linux-gnu", "/usr/aarch64-linux-gnu/include"),
    "armv7a-linux-androideabi": ("armv7a-linux-gnueabihf", "/usr/arm-linux-gnueabihf/include"),
}
# Debian's 32-bit Arm C library is built for the hard-float ABI only.
DROPPED = {"-c", "-MD", "-fcolor-diagnostics", "-msoft-float", "-mfloat-abi=softfp"}
DROPPED_WITH_VALUE = {"-MF", "-o"}


def desk_command(command):
    words = shlex.split(command)
    while "=" in words[0]:  # PWD=/proc/self/cwd
        words.pop(0)
    compiler = "clang++-14" if words[0].endswith("++") else "clang-14"
    out, libc, skip = [compiler, "-fsyntax-only", "-D__ANDROID__"], None, False
    for i, word in enumerate(words[1:], 1):
        if skip:
            skip = False
        elif word in DROPPED_WITH_VALUE:
            skip = True
        elif word in DROPPED or word.startswith("-B"):
            pass
        elif words[i - 1] == "-target":
            prefix = next((p for p in TARGETS if word.startswith(p)), None)
            if prefix is None:
                raise SystemExit(f"compile-check: no desk target for {word}")
            triple, libc = TARGETS[prefix]
            out.append(triple)
        else:
            out.append(word)
    if libc is None:
        raise SystemExit("compile-check: a command without -target: " + command)
    # bionic's place: after libc++'s headers, which Soong gives as the last system folder.
    source = out.pop()
    return out + ["-isystem", BIONIC, "-isystem", libc, source]


def variant(output):
    # out/soong/.intermediates/<dir>/<module>/<variant>/obj/...
    return "/".join(output.split("/obj/")[0].split("/")[-2:])


def check(tree, entry):
    command = desk_command(entry["command"])
    result = subprocess.run(command, cwd=tree, capture_output=True, text=True)
    return entry, command, result


def main():
    tree = sys.argv[1]
    try:
        database = json.load(sys.stdin)
    except ValueError:
        raise SystemExit("compile-check: ninja gave no compile database")
    entries = [e for e in database if e["file"].startswith(PROJECT)]
    if not entries:
        raise SystemExit("compile-check: build.ninja holds no compile command for the project")
    failed = 0
    shown = False
    with ThreadPoolExecutor(os.cpu_count()) as pool:
        for entry, command, result in pool.map(lambda e: check(tree, e), entries):
            if result.returncode != 0:
                failed += 1
                print(f"FAILED {entry['file'][len(PROJECT):]} ({variant(entry['output'])})")
                if not shown:  # the flags differ little between commands
                    print("  " + shlex.join(command))
                    shown = True
                print(result.stderr.rstrip())
    variants = sorted({variant(e["output"]) for e in entries})
    print(f"compile-check: {len(entries) - failed} of {len(entries)} compile commands pass, "
          f"in {len(variants)} module variants: {', '.join(variants)}")
    sys.exit(1 if failed else 0)


if __name__ == "__main__":
    main()
