# Cross build for arm-linux-gnueabihf with Debian's g++-arm-linux-gnueabihf:
#   cmake -S . -B build-armhf -DCMAKE_TOOLCHAIN_FILE=cmake/arm-linux-gnueabihf.cmake
set(CROSS_TRIPLE arm-linux-gnueabihf)
set(CMAKE_SYSTEM_PROCESSOR arm)
include(${CMAKE_CURRENT_LIST_DIR}/debianCross.cmake)
