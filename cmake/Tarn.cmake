# Build conventions shared by every library.
#
# Each library directory holds:
#   *.cpp            portable logic, built for Windows and natively (no <windows.h>)
#   win/*.cpp        the thin Win32/COM layer, Windows build only
#   native/*.cpp     native stand-ins for the Win32 layer (test sinks), native build only
#   tests/*.cpp      unit tests of the portable logic, run in both builds
#   tests/win/*.cpp  tests that need Windows (run under Wine)
# Files are picked up by glob so that adding a source never means editing a shared list.

option(TARN_SANITIZE "Native build with AddressSanitizer and UndefinedBehaviorSanitizer" OFF)
option(TARN_FUZZ "Native clang build of the libFuzzer targets (no unit tests)" OFF)
set(TARN_DOCTEST_INCLUDE /usr/include/doctest)

if(WIN32)
  add_compile_definitions(WIN32_LEAN_AND_MEAN NOMINMAX _WIN32_WINNT=0x0601 WINVER=0x0601 _WIN32_IE=0x0800)
  add_compile_options(-Wall -Wextra -Wno-unknown-pragmas -Wno-cast-function-type -Wno-missing-field-initializers)
  # Static runtime: the DLL and tools must run without libstdc++/winpthread DLLs beside them.
  add_link_options(-static -static-libgcc -static-libstdc++)
  configure_file(${CMAKE_CURRENT_LIST_DIR}/wine-run.sh.in ${CMAKE_BINARY_DIR}/wine-run.sh @ONLY
                 FILE_PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
  set(CMAKE_CROSSCOMPILING_EMULATOR ${CMAKE_BINARY_DIR}/wine-run.sh)
  set(TARN_WINEPREFIX ${CMAKE_BINARY_DIR}/wineprefix)
else()
  add_compile_options(-Wall -Wextra)
  if(TARN_SANITIZE)
    add_compile_options(-fsanitize=address,undefined -fno-sanitize-recover=all -fno-omit-frame-pointer)
    add_link_options(-fsanitize=address,undefined)
  endif()
  if(TARN_FUZZ)
    add_compile_options(-fsanitize=fuzzer-no-link,address,undefined -fno-sanitize-recover=all -fno-omit-frame-pointer)
    add_link_options(-fsanitize=address,undefined)
  endif()
endif()

function(tarn_library name)
  file(GLOB portable CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/*.cpp)
  if(WIN32)
    file(GLOB platform CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/win/*.cpp)
  else()
    file(GLOB platform CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/native/*.cpp)
  endif()
  if(NOT portable AND NOT platform)
    add_library(${name} INTERFACE)
    target_include_directories(${name} INTERFACE ${PROJECT_SOURCE_DIR})
    target_link_libraries(${name} INTERFACE ${ARGN})
    return()
  endif()
  add_library(${name} STATIC ${portable} ${platform})
  target_include_directories(${name} PUBLIC ${PROJECT_SOURCE_DIR})
  target_link_libraries(${name} PUBLIC ${ARGN})
endfunction()

# Registers a test executable with ctest. Windows tests run under Wine inside the build
# tree's own prefix, which the "wine" fixture prepares (server kept alive, DLL registered).
function(tarn_register_test target)
  cmake_parse_arguments(T "SERIAL" "" "LOCKS;LABELS" ${ARGN})
  add_test(NAME ${target} COMMAND ${target})
  set_tests_properties(${target} PROPERTIES LABELS "${T_LABELS}")
  if(WIN32)
    set_tests_properties(${target} PROPERTIES FIXTURES_REQUIRED wine
      ENVIRONMENT "TARN_SOURCE_DIR=${PROJECT_SOURCE_DIR};TARN_BINARY_DIR=${CMAKE_BINARY_DIR}")
  else()
    set_tests_properties(${target} PROPERTIES
      ENVIRONMENT "TARN_SOURCE_DIR=${PROJECT_SOURCE_DIR};TARN_BINARY_DIR=${CMAKE_BINARY_DIR}")
  endif()
  if(T_SERIAL)
    set_tests_properties(${target} PROPERTIES RUN_SERIAL TRUE)
  endif()
  if(T_LOCKS)
    set_tests_properties(${target} PROPERTIES RESOURCE_LOCK "${T_LOCKS}")
  endif()
endfunction()

# doctest's runner is compiled once (TarnTestMain, testing/CMakeLists.txt) and linked into
# every test program: compiling it per program cost most of the build.
function(tarn_test_executable target)
  add_executable(${target} ${ARGN})
  target_include_directories(${target} SYSTEM PRIVATE ${TARN_DOCTEST_INCLUDE})
  target_link_libraries(${target} PRIVATE TarnTestSupport TarnTestMain)
  if(WIN32)
    # The products under test keep the build's flags; the test programs themselves build
    # faster unoptimised and without debug records (doctest reports file and line anyway).
    target_compile_options(${target} PRIVATE -O0 -g0)
  endif()
endfunction()

# tarn_tests(<lib> [LIBS ...] [SERIAL] [LOCKS ...]): one executable for tests/*.cpp and,
# in the Windows build, one for tests/win/*.cpp.
function(tarn_tests lib)
  if(TARN_FUZZ)
    return()
  endif()
  cmake_parse_arguments(T "SERIAL" "" "LIBS;LOCKS" ${ARGN})
  file(GLOB portable CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/tests/*.cpp)
  if(portable)
    tarn_test_executable(${lib}_tests ${portable})
    target_link_libraries(${lib}_tests PRIVATE ${lib} ${T_LIBS})
    tarn_register_test(${lib}_tests LABELS unit)
  endif()
  if(WIN32)
    file(GLOB windows CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/tests/win/*.cpp)
    if(windows)
      tarn_test_executable(${lib}_wintests ${windows})
      target_link_libraries(${lib}_wintests PRIVATE ${lib} ${T_LIBS})
      set(extra)
      if(T_SERIAL)
        list(APPEND extra SERIAL)
      endif()
      if(T_LOCKS)
        list(APPEND extra LOCKS ${T_LOCKS})
      endif()
      tarn_register_test(${lib}_wintests LABELS wine ${extra})
    endif()
  endif()
endfunction()
