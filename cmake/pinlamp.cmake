# Compile options that every target of this project shares.
add_library(pinlamp_options INTERFACE)
target_compile_options(pinlamp_options INTERFACE
  -Wall -Wextra -Wpedantic -Wshadow -Wconversion $<$<BOOL:${PINLAMP_WERROR}>:-Werror>)
# dlclose() unloads a library only if it has no unique symbols.
target_compile_options(pinlamp_options INTERFACE $<$<CXX_COMPILER_ID:GNU>:-fno-gnu-unique>)
# GCC 12 warns wrongly of overlapping copies in optimised concatenations of short strings.
target_compile_options(pinlamp_options INTERFACE
  $<$<AND:$<CXX_COMPILER_ID:GNU>,$<VERSION_LESS:$<CXX_COMPILER_VERSION>,13>,$<CONFIG:Release>>:-Wno-restrict>)
# GCC 13 and 14, and GCC 12 in a batch, warn wrongly of writes to address zero where a destructor's null check was inlined.
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND
   (CMAKE_CXX_COMPILER_VERSION VERSION_GREATER_EQUAL 13 OR (PINLAMP_UNITY AND NOT PINLAMP_SANITIZE)))
  target_compile_options(pinlamp_options INTERFACE -Wno-stringop-overflow)
endif()
# In a batch GCC takes the sources for headers, and warns of their classes with members of unnamed namespaces.
target_compile_options(pinlamp_options INTERFACE
  $<$<AND:$<CXX_COMPILER_ID:GNU>,$<BOOL:${PINLAMP_UNITY}>>:-Wno-subobject-linkage>)
# Calls within a library are direct; no program interposes its functions.
target_compile_options(pinlamp_options INTERFACE -fno-semantic-interposition)
target_include_directories(pinlamp_options INTERFACE ${PROJECT_SOURCE_DIR})
# Names of sources in programs are relative: the same from every clone, for the compiler's cache.
target_compile_options(pinlamp_options INTERFACE -ffile-prefix-map=${PROJECT_SOURCE_DIR}/=)
if(PINLAMP_SANITIZE)
  # With sanitizers GCC 12 warns wrongly of uninitialised reads in std::function.
  target_compile_options(pinlamp_options INTERFACE
    -fsanitize=${PINLAMP_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer
    $<$<CXX_COMPILER_ID:GNU>:-Wno-maybe-uninitialized>)
  target_link_options(pinlamp_options INTERFACE -fsanitize=${PINLAMP_SANITIZE})
  # Clang 14 takes the type of a function in another library, whose symbols are hidden, for another one.
  target_compile_options(pinlamp_options INTERFACE $<$<CXX_COMPILER_ID:Clang>:-fno-sanitize=function>)
endif()

if(PINLAMP_FUZZ)
  # Counts edges, for the tests as well: they and the fuzz targets share what is compiled. Without a call at each comparison,
  # which takes a quarter to a third of the time; the kept corpus has the words to compare with.
  target_compile_options(pinlamp_options INTERFACE
    -fsanitize=fuzzer-no-link -fno-sanitize-coverage=trace-cmp -fsized-deallocation)
endif()

# pinlamp_objects(NAME SOURCES...): the objects of one folder, for the libraries and the tests.
function(pinlamp_objects name)
  add_library(${name} OBJECT ${ARGN})
  target_link_libraries(${name} PUBLIC pinlamp_options)
endfunction()

# pinlamp_quickly(TARGET): compiled without optimisation under sanitizers, in half the time: what does not need to be fast.
function(pinlamp_quickly target)
  if(PINLAMP_SANITIZE)
    target_compile_options(${target} PRIVATE -O0)
  endif()
endfunction()

# pinlamp_test(NAME SOURCES... LIBRARIES...): the test program of a folder; ctest runs each case as a test.
function(pinlamp_test name)
  cmake_parse_arguments(arg "" "TIMEOUT" "SOURCES;LIBRARIES" ${ARGN})
  if(NOT arg_TIMEOUT)
    set(arg_TIMEOUT 60)
  endif()
  add_executable(${name} ${arg_SOURCES})
  target_link_libraries(${name} PRIVATE pinlamp_options GTest::gmock_main ${arg_LIBRARIES})
  pinlamp_quickly(${name})
  gtest_discover_tests(${name} DISCOVERY_MODE PRE_TEST PROPERTIES TIMEOUT ${arg_TIMEOUT})
endfunction()
