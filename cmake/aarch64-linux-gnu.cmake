# Cross build for 64-bit Arm Linux on a Debian amd64 host:
#   cmake -S . -B build-arm64/build -DCMAKE_TOOLCHAIN_FILE=cmake/aarch64-linux-gnu.cmake
#
# The compilers come from g++-aarch64-linux-gnu. The libraries the project
# depends on come from Debian's multiarch arm64 packages (android-libbase-dev:arm64,
# libfmt-dev:arm64, libgtest-dev:arm64, ...), which install into the host's own
# /usr beside the amd64 copies: libraries under /usr/lib/aarch64-linux-gnu,
# headers shared in /usr/include. So there is no sysroot to point at:
# - Debian's cross compiler searches /usr/include after its own C library
#   headers, so the shared headers need no flags;
# - find_library and find_package search <prefix>/lib/<library architecture>,
#   so with the architecture below they find the arm64 copies and never the
#   amd64 ones in /usr/lib/x86_64-linux-gnu.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)

set(CMAKE_C_COMPILER aarch64-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER aarch64-linux-gnu-g++)

# CMake would also derive this from the compiler's link directories; stating
# it keeps the arm64 search paths from depending on that detection.
set(CMAKE_LIBRARY_ARCHITECTURE aarch64-linux-gnu)

# pkg-config (libbpf, libnl-route for the desk's kernel side) reads the arm64 copies' files.
set(ENV{PKG_CONFIG_LIBDIR} /usr/lib/aarch64-linux-gnu/pkgconfig:/usr/share/pkgconfig)
