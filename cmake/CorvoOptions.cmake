# Options of the build, and the flags that every target of ours gets.

option(CORVO_TESTS "Build the tests" ON)
option(CORVO_BENCH "Build the benchmarks" OFF)
option(CORVO_FUZZ "Build the fuzz targets (needs clang)" OFF)
option(CORVO_COVERAGE "Build for gcov" OFF)
set(CORVO_SANITIZE "" CACHE STRING "Sanitizers, as given to -fsanitize= (address,undefined or thread)")
set(CORVO_VX_LIBRARY "" CACHE STRING
    "The device's own service-call library (a path or -l name); empty builds and uses the reference one")

set(CMAKE_CXX_STANDARD 20)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)
set(CMAKE_CXX_VISIBILITY_PRESET hidden)
set(CMAKE_C_VISIBILITY_PRESET hidden)
set(CMAKE_VISIBILITY_INLINES_HIDDEN ON)
set(CMAKE_EXPORT_COMPILE_COMMANDS ON)

if(NOT CMAKE_BUILD_TYPE)
  set(CMAKE_BUILD_TYPE RelWithDebInfo CACHE STRING "" FORCE)
endif()

add_compile_definitions(_GNU_SOURCE)
add_compile_options(-Wall -Wextra -Werror)
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND CMAKE_CXX_COMPILER_VERSION VERSION_LESS 13)
  add_compile_options($<$<COMPILE_LANGUAGE:CXX>:-Wno-restrict>)  # false alarm on std::string + at -O3 (GCC bug 105651)
endif()
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
  # The compiler collects its garbage from 128 MiB on, for a tenth of its time; nearly all of our files stay below 1 GiB.
  add_compile_options($<$<COMPILE_LANGUAGE:CXX>:--param=ggc-min-heapsize=1048576>)
endif()
if(CMAKE_BUILD_TYPE MATCHES "Release|RelWithDebInfo" AND NOT CORVO_SANITIZE AND NOT CORVO_COVERAGE)
  add_compile_definitions(_FORTIFY_SOURCE=2)
  add_compile_options(-fstack-protector-strong)
endif()
if(CORVO_SANITIZE)
  add_compile_options(-fsanitize=${CORVO_SANITIZE} -fno-omit-frame-pointer -fno-sanitize-recover=all)
  if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    # False alarms inside <regex> and std::function: instrumented code hides initialisations (GCC bug 105562). The
    # release build has the warning.
    add_compile_options($<$<COMPILE_LANGUAGE:CXX>:-Wno-maybe-uninitialized>)
  endif()
  add_link_options(-fsanitize=${CORVO_SANITIZE})
  if(CORVO_SANITIZE MATCHES undefined)
    # The check of virtual tables looks at memory through a pipe: false alarms where a test leaves no descriptor.
    add_compile_options(-fno-sanitize=vptr)
  endif()
endif()
if(CORVO_FUZZ)
  add_compile_options(-fsanitize=fuzzer-no-link)
endif()
if(CORVO_COVERAGE)
  add_compile_options(--coverage -O0 -fprofile-update=atomic)  # atomic: threads count together
  add_link_options(--coverage)
endif()

find_program(CORVO_CCACHE ccache)
if(CORVO_CCACHE)
  set(CMAKE_C_COMPILER_LAUNCHER ${CORVO_CCACHE})
  set(CMAKE_CXX_COMPILER_LAUNCHER ${CORVO_CCACHE})
endif()

# Compiling the tests takes most of a build from nothing, and they need no speed of their own.
option(CORVO_QUICK_TESTS "Compile the tests' own code without optimisation, unwatched for undefined behaviour" ON)
