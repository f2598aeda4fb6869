# Flags that every target of the project shares, and the few functions by which folders add to them.

add_library(mfwd6_flags INTERFACE)
target_include_directories(mfwd6_flags INTERFACE ${PROJECT_SOURCE_DIR})
target_compile_options(mfwd6_flags INTERFACE
  -Wall -Wextra -Wpedantic -Wconversion -Wshadow
  $<$<BOOL:${MFWD6_WERROR}>:-Werror>
  -fno-omit-frame-pointer)
target_compile_definitions(mfwd6_flags INTERFACE _GNU_SOURCE)
if(MFWD6_WINDOW_BASE)
  target_compile_definitions(mfwd6_flags INTERFACE MFWD6_WINDOW_BASE=${MFWD6_WINDOW_BASE})
endif()
if(MFWD6_SANITIZE)
  target_compile_options(mfwd6_flags INTERFACE -fsanitize=${MFWD6_SANITIZE} -fno-sanitize-recover=all)
  target_link_options(mfwd6_flags INTERFACE -fsanitize=${MFWD6_SANITIZE})
  # The thread sanitizer does not follow fences and GCC says so at each; where they stand no test of
  # that flavour goes.
  if(MFWD6_SANITIZE MATCHES "thread" AND CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    target_compile_options(mfwd6_flags INTERFACE -Wno-tsan)
  endif()
endif()
if(MFWD6_FUZZ)
  target_compile_options(mfwd6_flags INTERFACE -fsanitize=fuzzer-no-link)
  target_link_options(mfwd6_flags INTERFACE -fsanitize=fuzzer-no-link)
endif()

# What ships: no exceptions, no run-time type information.
add_library(mfwd6_core_flags INTERFACE)
target_link_libraries(mfwd6_core_flags INTERFACE mfwd6_flags)
target_compile_options(mfwd6_core_flags INTERFACE $<$<COMPILE_LANGUAGE:CXX>:-fno-exceptions -fno-rtti>)
if(MFWD6_SANITIZE)
  # All else is compiled without optimisation there: sanitized code takes twice as long with it.
  target_compile_options(mfwd6_core_flags INTERFACE -O1)
endif()

# mfwd6_service(FILE...) adds the sources of one service folder to libmfwd6_services.so, and to its
# twin with crash points, in which every journaled store can be made the last one.
function(mfwd6_service)
  foreach(file IN LISTS ARGN)
    target_sources(mfwd6_services PRIVATE ${CMAKE_CURRENT_SOURCE_DIR}/${file})
    if(TARGET mfwd6_services_crash)
      target_sources(mfwd6_services_crash PRIVATE ${CMAKE_CURRENT_SOURCE_DIR}/${file})
    endif()
  endforeach()
endfunction()

# All programs of mfwd6_test().
add_custom_target(mfwd6_tests)

# mfwd6_test(NAME [CRASH] [TSAN] SOURCES file... [LIBS lib...] [TIMEOUT s]) makes one GoogleTest program.
# CRASH links the services with crash points; TSAN marks what also runs under the thread sanitizer.
function(mfwd6_test name)
  cmake_parse_arguments(T "CRASH;TSAN" "TIMEOUT" "SOURCES;LIBS" ${ARGN})
  if(MFWD6_SANITIZE MATCHES "thread" AND NOT T_TSAN)
    return()
  endif()
  add_executable(${name} ${T_SOURCES})
  add_dependencies(mfwd6_tests ${name})
  # Tests are compiled more often than they run; what they test has its full optimisation.
  target_compile_options(${name} PRIVATE $<$<CONFIG:Release>:-O1>)
  target_link_libraries(${name} PRIVATE mfwd6_flags
    $<IF:$<BOOL:${T_CRASH}>,mfwd6_services_crash,mfwd6_services> ${T_LIBS} GTest::gtest GTest::gtest_main Threads::Threads)
  add_test(NAME ${name} COMMAND ${name})
  if(NOT T_TIMEOUT)
    set(T_TIMEOUT 300)
  endif()
  set_tests_properties(${name} PROPERTIES TIMEOUT ${T_TIMEOUT})
endfunction()

# mfwd6_bench(NAME SOURCES file... [LIBS lib...]) makes one Google Benchmark program.
function(mfwd6_bench name)
  cmake_parse_arguments(B "" "" "SOURCES;LIBS" ${ARGN})
  add_executable(${name} ${B_SOURCES})
  target_link_libraries(${name} PRIVATE mfwd6_flags mfwd6_services ${B_LIBS} benchmark::benchmark Threads::Threads)
  set_property(GLOBAL APPEND PROPERTY MFWD6_BENCHES ${name})
endfunction()

# mfwd6_chooses_platform(TARGET) links a program to the library and leaves the platform's names open:
# they are those of the platform library that apps/platform/platform_choice.h loads when the program starts.
function(mfwd6_chooses_platform target)
  target_link_libraries(${target} PRIVATE mfwd6_platform_choice ip6mc)
  target_link_options(${target} PRIVATE LINKER:--unresolved-symbols=ignore-in-shared-libs LINKER:-z,lazy)
  # Not linked, but needed by whoever runs it.
  foreach(platform IN ITEMS mfwd6_platform_sim mfwd6_platform_linux)
    if(TARGET ${platform})
      add_dependencies(${target} ${platform})
    endif()
  endforeach()
endfunction()
