# Kernel engines: each instruction set's kernels live in their own source
# files and only those files get the instruction set's flags. Expects
# RSMPL_SOURCES (the library sources) and edits it in place.
option(RSMPL_ENGINE_ENV "Let RSMPL_ENGINE in the environment force a kernel engine (tests, benchmarks)" ON)

set(_rsmpl_x86 FALSE)
set(_rsmpl_arm64 FALSE)
if(CMAKE_SYSTEM_PROCESSOR MATCHES "^(x86_64|AMD64|amd64)$")
  set(_rsmpl_x86 TRUE)
elseif(CMAKE_SYSTEM_PROCESSOR MATCHES "^(aarch64|arm64|ARM64)$")
  set(_rsmpl_arm64 TRUE)
endif()

# GCC only: keep its unrolled multiply-accumulate chains in order and its
# loads unshared, which would otherwise spill the accumulators.
set(_rsmpl_vector_opts "")
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
  set(_rsmpl_vector_opts "-fno-tree-reassoc;-fno-predictive-commoning")
endif()

foreach(src IN LISTS RSMPL_SOURCES)
  if(src MATCHES "_(sse41|avx2)\\.cpp$" AND NOT _rsmpl_x86)
    list(REMOVE_ITEM RSMPL_SOURCES ${src})
  elseif(src MATCHES "_neon\\.cpp$" AND NOT _rsmpl_arm64)
    list(REMOVE_ITEM RSMPL_SOURCES ${src})
  elseif(src MATCHES "_neon\\.cpp$")
    set_source_files_properties(${src} PROPERTIES COMPILE_OPTIONS "${_rsmpl_vector_opts}")
  elseif(src MATCHES "_sse41\\.cpp$")
    set_source_files_properties(${src} PROPERTIES COMPILE_OPTIONS "-msse4.1;${_rsmpl_vector_opts}")
  elseif(src MATCHES "_avx2\\.cpp$")
    set_source_files_properties(${src} PROPERTIES COMPILE_OPTIONS "-mavx2;${_rsmpl_vector_opts}")
  endif()
endforeach()

if(RSMPL_ENGINE_ENV)
  set_property(SOURCE ${PROJECT_SOURCE_DIR}/rsmpl/engine.cpp APPEND PROPERTY COMPILE_DEFINITIONS RSMPL_ENGINE_ENV=1)
endif()
