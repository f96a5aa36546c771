# Cross build for the device: 32-bit big-endian MIPS (o32) Linux, with Debian's
# gcc-mips-linux-gnu / g++-mips-linux-gnu. Test binaries run under qemu-user.
#
# Dependencies built for the target (json-c, GoogleTest) live in one prefix,
# by default build-mips-deps/sysroot beside this folder (tools/cross-mips.sh
# fills it); set KEP_MIPS_PREFIX (cache or environment) to use another one.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR mips)

set(KEP_MIPS_TRIPLET mips-linux-gnu)
set(CMAKE_C_COMPILER ${KEP_MIPS_TRIPLET}-gcc)
set(CMAKE_CXX_COMPILER ${KEP_MIPS_TRIPLET}-g++)
# Debian's cross compilers know their own system root; the target's C library
# and headers sit in /usr/mips-linux-gnu, which qemu also needs for the loader.
set(KEP_MIPS_LIBC_ROOT /usr/${KEP_MIPS_TRIPLET})

# Under qemu-user the 64-bit host kernel hands out 64-bit directory offsets and
# inode numbers, which 32-bit readdir and stat turn into EOVERFLOW (a readdir
# loop then just sees an empty folder). The large-file interfaces carry them, as
# they would any large value on the device. No public record holds an off_t.
set(CMAKE_C_FLAGS_INIT "-D_FILE_OFFSET_BITS=64")
set(CMAKE_CXX_FLAGS_INIT "-D_FILE_OFFSET_BITS=64")

# try_compile projects re-read this file without the cache, so the prefix is
# also kept in the environment.
if(NOT KEP_MIPS_PREFIX)
  if(DEFINED ENV{KEP_MIPS_PREFIX})
    set(KEP_MIPS_PREFIX $ENV{KEP_MIPS_PREFIX})
  else()
    get_filename_component(KEP_MIPS_PREFIX "${CMAKE_CURRENT_LIST_DIR}/../build-mips-deps/sysroot" ABSOLUTE)
  endif()
endif()
set(KEP_MIPS_PREFIX ${KEP_MIPS_PREFIX} CACHE PATH "Prefix of the dependencies built for MIPS")
set(ENV{KEP_MIPS_PREFIX} ${KEP_MIPS_PREFIX})

# Libraries, headers and packages come only from the target's roots; programs
# (pkg-config, sh) from the build machine.
set(CMAKE_FIND_ROOT_PATH ${KEP_MIPS_PREFIX} ${KEP_MIPS_LIBC_ROOT})
set(CMAKE_PREFIX_PATH ${KEP_MIPS_PREFIX})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# ctest and gtest discovery run the target's programs through this.
find_program(KEP_QEMU_MIPS NAMES qemu-mips qemu-mips-static REQUIRED)
set(CMAKE_CROSSCOMPILING_EMULATOR ${KEP_QEMU_MIPS} -L ${KEP_MIPS_LIBC_ROOT})

# pkg-config sees only the target's .pc files (json-c's hold absolute paths
# into the prefix, so no sysroot rewriting).
set(ENV{PKG_CONFIG_LIBDIR} ${KEP_MIPS_PREFIX}/lib/pkgconfig)
set(ENV{PKG_CONFIG_PATH} "")
unset(ENV{PKG_CONFIG_SYSROOT_DIR})
