# Cross build for aarch64-linux-gnu with Debian's g++-aarch64-linux-gnu:
#   cmake -S . -B build-aarch64 -DCMAKE_TOOLCHAIN_FILE=cmake/aarch64-linux-gnu.cmake
set(CROSS_TRIPLE aarch64-linux-gnu)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
include(${CMAKE_CURRENT_LIST_DIR}/debianCross.cmake)
