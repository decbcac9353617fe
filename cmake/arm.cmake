# Builds for 32-bit ARM with Debian's cross compiler, and runs what it builds under an emulator. The libraries of that
# machine lie in build-arm-root/, where `scripts/setup.sh --arm` has unpacked them; programs of the build are this machine's.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)
set(CMAKE_C_COMPILER arm-linux-gnueabihf-gcc)
set(CMAKE_CXX_COMPILER arm-linux-gnueabihf-g++)

get_filename_component(root ${CMAKE_CURRENT_LIST_DIR}/../build-arm-root ABSOLUTE)
# Where the linker finds libraries and what they need, also when no path of it is kept in the library.
set(CMAKE_EXE_LINKER_FLAGS_INIT "")
foreach(folder usr/lib/arm-linux-gnueabihf lib/arm-linux-gnueabihf)
  string(APPEND CMAKE_EXE_LINKER_FLAGS_INIT " -L${root}/${folder} -Wl,-rpath-link,${root}/${folder}")
endforeach()
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-arm-static -L ${root})
set(CMAKE_FIND_ROOT_PATH ${root})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
set(ENV{PKG_CONFIG_LIBDIR} ${root}/usr/lib/arm-linux-gnueabihf/pkgconfig)
set(ENV{PKG_CONFIG_SYSROOT_DIR} ${root})
