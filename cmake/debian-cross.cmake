# Cross-compiles with Debian's tool chain and runs the tests in an emulator:
# cmake --toolchain cmake/debian-cross.cmake -DOXEVENT_PROCESSOR=aarch64
# Needs the packages of the tool chain (crossbuild-essential-arm64), the libraries of the architecture
# (libcurl4-openssl-dev:arm64 ...) and qemu-user-static.
set(OXEVENT_PROCESSOR aarch64 CACHE STRING "Processor to compile for, as Debian's tool chains name it")
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES OXEVENT_PROCESSOR)
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR ${OXEVENT_PROCESSOR})
set(CMAKE_LIBRARY_ARCHITECTURE ${OXEVENT_PROCESSOR}-linux-gnu)
set(CMAKE_C_COMPILER ${CMAKE_LIBRARY_ARCHITECTURE}-gcc)
set(CMAKE_CXX_COMPILER ${CMAKE_LIBRARY_ARCHITECTURE}-g++)
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-${OXEVENT_PROCESSOR}-static)
