# The board's processor: 32-bit big-endian PowerPC with an e300-class core, through Debian's cross
# compiler. The core is a 603e with an FPU and without AltiVec, so what is built for it also runs
# on the emulated 750. Programs need no library but the C library's: the compiler's own are linked
# in. That core's pages are 4 KiB, so programs need no more padding than that. A build
# id would change with the debug information, which a compiler cache may take from another folder.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR ppc)
set(CMAKE_C_COMPILER powerpc-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER powerpc-linux-gnu-g++)
set(CMAKE_C_FLAGS_INIT "-mcpu=e300c3 -ffunction-sections -fdata-sections")
set(CMAKE_CXX_FLAGS_INIT "-mcpu=e300c3 -ffunction-sections -fdata-sections")
set(CMAKE_EXE_LINKER_FLAGS_INIT
    "-static-libgcc -static-libstdc++ -Wl,--build-id=none -Wl,-z,max-page-size=4096 -Wl,--gc-sections")

set(CMAKE_FIND_ROOT_PATH /usr/powerpc-linux-gnu)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# User-mode emulation lists the tests of every suite; it runs only those labelled `single`.
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-ppc -cpu 750 -L /usr/powerpc-linux-gnu)
