# Cross-compiles for aarch64 Linux with Debian's cross toolchain (crossbuild-essential-arm64)
# against the arm64 Qt 5 libraries installed next to the amd64 ones (multiarch). The host's
# moc and rcc generate the code; the test executables run through qemu-aarch64.
#   scripts/install-deps --arm64 installs all of it; the `arm64` preset uses this file.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(CMAKE_LIBRARY_ARCHITECTURE aarch64-linux-gnu)

set(CMAKE_C_COMPILER aarch64-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER aarch64-linux-gnu-g++)

# Libraries and package files of the target come from the multiarch folder
# /usr/lib/aarch64-linux-gnu (CMAKE_LIBRARY_ARCHITECTURE); programs (moc, rcc) are the host's.
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)

# ctest runs every test executable through the emulator; -L names where the arm64 dynamic
# loader and libraries are (multiarch puts them under /).
find_program(TARVIX_QEMU_AARCH64 qemu-aarch64)
if(TARVIX_QEMU_AARCH64)
    set(CMAKE_CROSSCOMPILING_EMULATOR "${TARVIX_QEMU_AARCH64};-L;/")
endif()
