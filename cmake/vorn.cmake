# Compiler settings shared by every target of the project.

set(VORN_WARNINGS -Wall -Wextra)
if(VORN_WERROR)
  list(APPEND VORN_WARNINGS -Werror)
endif()

if(VORN_SANITIZE)
  add_compile_options(-fsanitize=${VORN_SANITIZE} -fno-omit-frame-pointer -fno-sanitize-recover=all)
  add_link_options(-fsanitize=${VORN_SANITIZE})
endif()

if(VORN_FUZZ)
  if(NOT CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
    message(FATAL_ERROR "VORN_FUZZ needs clang (CC=clang CXX=clang++)")
  endif()
  # Every object is instrumented for coverage; only the fuzz binaries link libFuzzer's main.
  add_compile_options(-fsanitize=fuzzer-no-link,address,undefined -fno-omit-frame-pointer)
  add_link_options(-fsanitize=address,undefined)
endif()

# vorn_library(name SOURCES...): one static library per folder.
# Both record their targets in VORN_TARGETS, for the check that the Android
# build file builds the same sources (tests/android).
function(vorn_library name)
  add_library(${name} STATIC ${ARGN})
  set_property(GLOBAL APPEND PROPERTY VORN_TARGETS ${name})
  target_compile_options(${name} PRIVATE ${VORN_WARNINGS} $<$<COMPILE_LANGUAGE:CXX>:-fno-exceptions>)
  target_include_directories(${name} PUBLIC ${PROJECT_SOURCE_DIR})
endfunction()

function(vorn_executable name)
  add_executable(${name} ${ARGN})
  set_property(GLOBAL APPEND PROPERTY VORN_TARGETS ${name})
  target_compile_options(${name} PRIVATE ${VORN_WARNINGS} $<$<COMPILE_LANGUAGE:CXX>:-fno-exceptions>)
  target_include_directories(${name} PRIVATE ${PROJECT_SOURCE_DIR})
endfunction()
