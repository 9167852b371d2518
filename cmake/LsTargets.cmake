# Settings that every target of the project shares, and the helpers that declare targets.

set(CMAKE_CXX_STANDARD 20)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_C_STANDARD 11)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)
set(CMAKE_CXX_VISIBILITY_PRESET hidden)
set(CMAKE_VISIBILITY_INLINES_HIDDEN ON)
set(CMAKE_EXPORT_COMPILE_COMMANDS ON)
# The code waits for a serial line; -O3 brings size and the compiler's false alarms, not speed.
set(CMAKE_C_FLAGS_RELEASE "-O2 -DNDEBUG")
set(CMAKE_CXX_FLAGS_RELEASE "-O2 -DNDEBUG")
# A 32-bit terminal has 64-bit time, too: without these its clock would end in 2038.
if(CMAKE_SIZEOF_VOID_P EQUAL 4)
  add_compile_definitions(_TIME_BITS=64 _FILE_OFFSET_BITS=64)
endif()
# LD_LIBRARY_PATH must be able to put other platform libraries in place: RUNPATH, never RPATH.
add_link_options(-Wl,--enable-new-dtags -Wl,--as-needed)

find_program(CCACHE ccache)
if(CCACHE)
  set(CMAKE_C_COMPILER_LAUNCHER "${CCACHE}")
  set(CMAKE_CXX_COMPILER_LAUNCHER "${CCACHE}")
endif()

if(LS_SANITIZE)
  add_compile_options(-fsanitize=${LS_SANITIZE} -fno-omit-frame-pointer -fno-sanitize-recover=all)
  add_link_options(-fsanitize=${LS_SANITIZE})
endif()

add_library(ls_warnings INTERFACE)
target_compile_options(ls_warnings INTERFACE
  -Wall -Wextra -Wshadow -Wconversion -Wcast-align=strict -Wformat=2 -Wformat-nonliteral
  -Wno-format-y2k -Wmissing-declarations -Wundef -Werror)
# GCC 12 sees overlapping copies in the C++ library's string concatenation (its bug 105651).
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND CMAKE_CXX_COMPILER_VERSION VERSION_LESS 13)
  target_compile_options(ls_warnings INTERFACE -Wno-restrict)
endif()
# In a sanitized build the optimizer sees paths that do not exist.
if(LS_SANITIZE)
  target_compile_options(ls_warnings INTERFACE -Wno-maybe-uninitialized)
endif()

# The wire records and fixed paths, for the daemon, the client and the simulator.
add_library(ls_records INTERFACE)
target_include_directories(ls_records INTERFACE "${PROJECT_SOURCE_DIR}/location_service/include")
target_compile_definitions(ls_records INTERFACE LS_ROOT="${LS_ROOT}")

# Small helpers, headers only, for everything in this project: descriptors, FILEs, signals, the clock.
add_library(ls_common INTERFACE)
target_include_directories(ls_common INTERFACE "${PROJECT_SOURCE_DIR}/common")

# The three headers between the daemon and the platform.
add_library(platform_headers INTERFACE)
target_include_directories(platform_headers INTERFACE "${PROJECT_SOURCE_DIR}/platform/include")

# ls_exports(NAME): the shared library NAME exports what NAME.map beside its CMakeLists.txt lists, and
# nothing more. Hidden visibility alone does not reach what the standard library's headers declare visible.
function(ls_exports name)
  set(map "${CMAKE_CURRENT_SOURCE_DIR}/${name}.map")
  target_link_options(${name} PRIVATE "LINKER:--version-script=${map}")
  set_target_properties(${name} PROPERTIES LINK_DEPENDS "${map}")
endfunction()

# ls_install_library(NAME COMPONENT C HEADERS FILES...): the shared library with component C; its headers,
# the link for the linker and what find_package(location_service) knows of it with component dev.
function(ls_install_library name)
  cmake_parse_arguments(arg "" "COMPONENT" "HEADERS" ${ARGN})
  set(include_dir "${CMAKE_INSTALL_INCLUDEDIR}/location_service")
  target_include_directories(${name} INTERFACE "$<INSTALL_INTERFACE:${include_dir}>")
  install(TARGETS ${name} EXPORT location_service LIBRARY DESTINATION "${CMAKE_INSTALL_LIBDIR}"
    COMPONENT ${arg_COMPONENT} NAMELINK_COMPONENT dev)
  install(FILES ${arg_HEADERS} DESTINATION "${include_dir}" COMPONENT dev)
endfunction()

# ls_unit_test(NAME SOURCES... [LIBS targets...]): one GoogleTest program, its cases known to CTest.
function(ls_unit_test name)
  cmake_parse_arguments(arg "" "" "SOURCES;LIBS" ${ARGN})
  add_executable(${name} ${arg_SOURCES})
  target_link_libraries(${name} PRIVATE ${arg_LIBS} GTest::gtest GTest::gtest_main ls_warnings)
  target_include_directories(${name} PRIVATE "${PROJECT_SOURCE_DIR}/tests/support")
  gtest_discover_tests(${name} TEST_PREFIX "${name}." DISCOVERY_TIMEOUT 60
    PROPERTIES TIMEOUT 120 LABELS unit ENVIRONMENT "${LS_TEST_ENVIRONMENT}")
endfunction()
