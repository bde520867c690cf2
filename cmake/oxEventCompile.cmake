# Compile and link options of every target in this project. Flags that not every compiler or architecture has are used
# where the compiler accepts them.
include(CheckCXXCompilerFlag)
include(CheckCXXSourceCompiles)

if(OXEVENT_FUZZ AND NOT CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
  message(FATAL_ERROR "OXEVENT_FUZZ needs clang")
elseif(OXEVENT_FUZZ)
  set(sanitizers fuzzer-no-link,address,undefined)
elseif(OXEVENT_SANITIZE STREQUAL "address")
  set(sanitizers address,undefined)
elseif(OXEVENT_SANITIZE STREQUAL "thread")
  set(sanitizers thread)
elseif(OXEVENT_SANITIZE)
  message(FATAL_ERROR "OXEVENT_SANITIZE must be empty, address or thread, not ${OXEVENT_SANITIZE}")
endif()

function(oxevent_add_if_supported flag)
  string(MAKE_C_IDENTIFIER "OXEVENT_HAS${flag}" variable)
  set(CMAKE_REQUIRED_FLAGS -Werror)
  check_cxx_compiler_flag(${flag} ${variable})
  target_compile_options(oxevent_options INTERFACE $<$<BOOL:${${variable}}>:${flag}>)
endfunction()

add_library(oxevent_options INTERFACE)
target_compile_options(oxevent_options INTERFACE
  -Wall -Wextra -Wpedantic -Wconversion -Wshadow $<$<BOOL:${OXEVENT_WERROR}>:-Werror>
  # Keeps the paths of the source and build directories out of the binaries.
  -ffile-prefix-map=${PROJECT_SOURCE_DIR}=. -ffile-prefix-map=${PROJECT_BINARY_DIR}=.
  $<$<COMPILE_LANG_AND_ID:CXX,GNU>:-Wno-restrict>  # GCC 12 warns about operator+ of std::string without reason.
  $<$<COMPILE_LANG_AND_ID:CXX,Clang>:-Wthread-safety>)
target_link_options(oxevent_options INTERFACE -Wl,--as-needed)
if(OXEVENT_HARDENING)
  foreach(flag -fstack-protector-strong -fstack-clash-protection -fcf-protection -mbranch-protection=standard)
    oxevent_add_if_supported(${flag})
  endforeach()
  target_link_options(oxevent_options INTERFACE -Wl,-z,relro,-z,now,-z,noexecstack)
  oxevent_add_if_supported(-fno-plt)  # With -z now, calls through the PLT would only be a detour.
  # -z shstk marks the result as supporting the shadow stack. The linker would not do so by itself: the start files of
  # the C library support it but are not marked. The result is not marked as supporting indirect branch tracking,
  # although our code has landing pads, because the start files have none.
  target_link_options(oxevent_options INTERFACE $<$<BOOL:${OXEVENT_HAS_fcf_protection}>:-Wl,-z,shstk>)
endif()

if(sanitizers)
  target_compile_options(oxevent_options INTERFACE -fsanitize=${sanitizers} -fno-sanitize-recover=all
                                                   -fno-omit-frame-pointer -g -DOXEVENT_SANITIZED)
  target_link_options(oxevent_options INTERFACE -fsanitize=${sanitizers})
elseif(OXEVENT_HARDENING)
  # Level 3 needs glibc 2.34 and GCC 12 or clang 9; headers that do not know it warn.
  set(CMAKE_REQUIRED_FLAGS "-Werror -O2 -U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=3")
  check_cxx_source_compiles("#include <cstring>\nint main() {}" OXEVENT_HAS_FORTIFY_3)
  unset(CMAKE_REQUIRED_FLAGS)
  target_compile_options(oxevent_options INTERFACE
    $<$<CONFIG:Release,RelWithDebInfo,MinSizeRel>:-U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=$<IF:$<BOOL:${OXEVENT_HAS_FORTIFY_3}>,3,2>>)
endif()

# Compiles a target as a library or a part of one. -fno-gnu-unique: a unique symbol would keep a shared library loaded
# after dlclose.
function(oxevent_compile target public_include)
  target_compile_features(${target} PRIVATE cxx_std_20)
  set_target_properties(${target} PROPERTIES
    CXX_EXTENSIONS OFF CXX_VISIBILITY_PRESET hidden VISIBILITY_INLINES_HIDDEN ON POSITION_INDEPENDENT_CODE ON)
  target_compile_options(${target} PRIVATE $<$<CXX_COMPILER_ID:GNU>:-fno-gnu-unique>)
  target_include_directories(${target} PUBLIC
    $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/${public_include}> $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>)
  target_link_libraries(${target} PRIVATE $<BUILD_INTERFACE:oxevent_options>)
endfunction()

# An absolute RPATH would make a program's build id depend on the build directory.
set(CMAKE_BUILD_RPATH_USE_ORIGIN ON)

# Exports exactly the symbols in cmake/<target>.map.
function(oxevent_export target)
  set(map ${PROJECT_SOURCE_DIR}/cmake/${target}.map)
  set_target_properties(${target} PROPERTIES
    LINKER_LANGUAGE CXX LINK_DEPENDS ${map} BUILD_RPATH "$ORIGIN" INSTALL_RPATH "$ORIGIN")
  target_link_options(${target} PRIVATE -Wl,--version-script=${map})
endfunction()
