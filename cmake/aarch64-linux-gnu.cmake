# Cross build for arm64 with Debian's aarch64-linux-gnu toolchain. Libraries of the
# target come from the cross packages (/usr/aarch64-linux-gnu) and from Debian's arm64
# multiarch packages (/usr/lib/aarch64-linux-gnu); header-only ones from /usr/include,
# which the cross compiler searches after its own directories.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(CMAKE_LIBRARY_ARCHITECTURE aarch64-linux-gnu)
set(CMAKE_C_COMPILER aarch64-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER aarch64-linux-gnu-g++)

# pkg-config reads the arm64 .pc files only.
set(ENV{PKG_CONFIG_LIBDIR} /usr/lib/aarch64-linux-gnu/pkgconfig:/usr/share/pkgconfig)
set(ENV{PKG_CONFIG_PATH} "")

# Programs of the build (tests, and the children they start) run under user-mode qemu,
# called by name: no binfmt handler is needed. The loader and the C and C++ runtime are
# those of the cross packages; the multiarch packages (libdw and what it needs) bring a
# second arm64 C library into /lib/aarch64-linux-gnu, which the loader would otherwise
# find first (a loader of one glibc build with the libc of another: the first
# pthread_create hangs), hence the library path. Libraries found in neither place come
# from the host's multiarch directories.
find_program(ZUDEBUG_QEMU_AARCH64 qemu-aarch64 REQUIRED)
set(CMAKE_CROSSCOMPILING_EMULATOR ${ZUDEBUG_QEMU_AARCH64} -L /usr/aarch64-linux-gnu
    -E LD_LIBRARY_PATH=/usr/aarch64-linux-gnu/lib)
