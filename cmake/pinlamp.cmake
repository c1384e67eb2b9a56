# Compile options that every target of this project shares.
add_library(pinlamp_options INTERFACE)
target_compile_options(pinlamp_options INTERFACE
  -Wall -Wextra -Wpedantic -Wshadow -Wconversion $<$<BOOL:${PINLAMP_WERROR}>:-Werror>)
# Plug-ins unload only where they hold no unique symbols.
target_compile_options(pinlamp_options INTERFACE $<$<CXX_COMPILER_ID:GNU>:-fno-gnu-unique>)
# GCC 12 takes the joining of short texts, once optimised, for copies that overlap.
target_compile_options(pinlamp_options INTERFACE
  $<$<AND:$<CXX_COMPILER_ID:GNU>,$<VERSION_LESS:$<CXX_COMPILER_VERSION>,13>,$<CONFIG:Release>>:-Wno-restrict>)
# The libraries call their own functions directly: nobody puts others in their place.
target_compile_options(pinlamp_options INTERFACE -fno-semantic-interposition)
target_include_directories(pinlamp_options INTERFACE ${PROJECT_SOURCE_DIR})
if(PINLAMP_SANITIZE)
  # GCC 12 takes what the sanitizers insert into std::function for reads of uninitialised memory.
  target_compile_options(pinlamp_options INTERFACE
    -fsanitize=${PINLAMP_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer
    $<$<CXX_COMPILER_ID:GNU>:-Wno-maybe-uninitialized>)
  target_link_options(pinlamp_options INTERFACE -fsanitize=${PINLAMP_SANITIZE})
endif()

if(PINLAMP_FUZZ)
  target_compile_options(pinlamp_options INTERFACE -fsanitize=fuzzer-no-link -fsized-deallocation)
endif()

# pinlamp_objects(NAME SOURCES...): one folder's objects, linked into the libraries and into the tests.
function(pinlamp_objects name)
  add_library(${name} OBJECT ${ARGN})
  target_link_libraries(${name} PUBLIC pinlamp_options)
endfunction()

# pinlamp_test(NAME SOURCES LIBRARIES): one test program a folder, each case a test of ctest.
function(pinlamp_test name)
  cmake_parse_arguments(arg "" "TIMEOUT" "SOURCES;LIBRARIES" ${ARGN})
  if(NOT arg_TIMEOUT)
    set(arg_TIMEOUT 60)
  endif()
  add_executable(${name} ${arg_SOURCES})
  target_link_libraries(${name} PRIVATE pinlamp_options GTest::gmock_main ${arg_LIBRARIES})
  gtest_discover_tests(${name} DISCOVERY_MODE PRE_TEST PROPERTIES TIMEOUT ${arg_TIMEOUT})
endfunction()
