# Options of every target of this project. -Wno-restrict: GCC 12 warns about operator+ of std::string without a reason.

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

add_library(oxevent_options INTERFACE)
target_compile_options(oxevent_options INTERFACE
  -Wall -Wextra -Wpedantic -Wconversion -Wshadow $<$<BOOL:${OXEVENT_WERROR}>:-Werror>
  # No file shows in which directory it was built.
  -ffile-prefix-map=${PROJECT_SOURCE_DIR}=. -ffile-prefix-map=${PROJECT_BINARY_DIR}=.
  -fstack-protector-strong -fstack-clash-protection -fcf-protection
  $<$<COMPILE_LANG_AND_ID:CXX,GNU>:-Wno-restrict>
  $<$<COMPILE_LANG_AND_ID:CXX,Clang>:-Wthread-safety>)
# The start files of the C library support the shadow stack but are not marked so; hence the option. They have no landing
# pads for indirect branches, so the linker does not mark the result, although our code has them.
target_link_options(oxevent_options INTERFACE -Wl,-z,relro,-z,now,-z,noexecstack,-z,shstk -Wl,--as-needed)

if(sanitizers)
  target_compile_options(oxevent_options INTERFACE -fsanitize=${sanitizers} -fno-sanitize-recover=all
                                                   -fno-omit-frame-pointer -g -DOXEVENT_SANITIZED)
  target_link_options(oxevent_options INTERFACE -fsanitize=${sanitizers})
else()
  target_compile_options(oxevent_options INTERFACE
    $<$<CONFIG:Release,RelWithDebInfo,MinSizeRel>:-U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=3>)
endif()

# Compiles a target as part of a shared library. -fno-gnu-unique: a unique symbol would keep it loaded after dlclose.
function(oxevent_compile target public_include)
  target_compile_features(${target} PRIVATE cxx_std_20)
  set_target_properties(${target} PROPERTIES
    CXX_EXTENSIONS OFF CXX_VISIBILITY_PRESET hidden VISIBILITY_INLINES_HIDDEN ON POSITION_INDEPENDENT_CODE ON)
  target_compile_options(${target} PRIVATE $<$<CXX_COMPILER_ID:GNU>:-fno-gnu-unique>)
  target_include_directories(${target} PUBLIC
    $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/${public_include}> $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>)
  target_link_libraries(${target} PRIVATE $<BUILD_INTERFACE:oxevent_options>)
endfunction()

# Otherwise a program's path to its libraries is absolute in the build directory, and part of its build id.
set(CMAKE_BUILD_RPATH_USE_ORIGIN ON)

# Exports exactly the symbols in cmake/<target>.map.
function(oxevent_export target)
  set(map ${PROJECT_SOURCE_DIR}/cmake/${target}.map)
  set_target_properties(${target} PROPERTIES
    LINKER_LANGUAGE CXX LINK_DEPENDS ${map} INSTALL_RPATH "$ORIGIN")
  target_link_options(${target} PRIVATE -Wl,--version-script=${map})
endfunction()
