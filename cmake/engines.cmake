# Kernel engines: each component keeps its per-ISA sources beside its scalar
# reference, and only those files get the instruction set's flags. Expects
# RSMPL_SOURCES (the library sources) and appends the sets this target
# architecture has.
option(RSMPL_ENGINE_ENV "Let RSMPL_ENGINE in the environment force a kernel engine (tests, benchmarks)" ON)

set(RSMPL_SSE41_SOURCES
  rsmpl/fir/fir_sse41.cpp
  rsmpl/sinc/sinc_sse41.cpp
  rsmpl/linear/linear_sse41.cpp
  rsmpl/channels/channel_moves_sse41.cpp)
set(RSMPL_AVX2_SOURCES
  rsmpl/fir/fir_avx2.cpp
  rsmpl/sinc/sinc_avx2.cpp
  rsmpl/linear/linear_avx2.cpp
  rsmpl/channels/channel_moves_avx2.cpp)
set(RSMPL_AVX512_SOURCES
  rsmpl/fir/fir_avx512.cpp
  rsmpl/channels/channel_moves_avx512.cpp)
set(RSMPL_NEON_SOURCES
  rsmpl/fir/fir_neon.cpp
  rsmpl/sinc/sinc_neon.cpp
  rsmpl/linear/linear_neon.cpp
  rsmpl/channels/channel_moves_neon.cpp)

# GCC only: keep its unrolled multiply-accumulate chains in order and its
# loads unshared, which would otherwise spill the accumulators.
set(_rsmpl_vector_opts "")
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
  set(_rsmpl_vector_opts "-fno-tree-reassoc;-fno-predictive-commoning")
endif()

if(CMAKE_SYSTEM_PROCESSOR MATCHES "^(x86_64|AMD64|amd64)$")
  set_source_files_properties(${RSMPL_SSE41_SOURCES} PROPERTIES COMPILE_OPTIONS "-msse4.1;${_rsmpl_vector_opts}")
  set_source_files_properties(${RSMPL_AVX2_SOURCES} PROPERTIES COMPILE_OPTIONS "-mavx2;${_rsmpl_vector_opts}")
  set_source_files_properties(${RSMPL_AVX512_SOURCES} PROPERTIES COMPILE_OPTIONS
    "-mavx2;-mavx512f;-mavx512bw;-mavx512vl;-mavx512vnni;${_rsmpl_vector_opts}")
  list(APPEND RSMPL_SOURCES ${RSMPL_SSE41_SOURCES} ${RSMPL_AVX2_SOURCES} ${RSMPL_AVX512_SOURCES})
elseif(CMAKE_SYSTEM_PROCESSOR MATCHES "^(aarch64|arm64|ARM64)$")
  set_source_files_properties(${RSMPL_NEON_SOURCES} PROPERTIES COMPILE_OPTIONS "${_rsmpl_vector_opts}")
  list(APPEND RSMPL_SOURCES ${RSMPL_NEON_SOURCES})
endif()

if(RSMPL_ENGINE_ENV)
  set_property(SOURCE rsmpl/engine/engine.cpp APPEND PROPERTY COMPILE_DEFINITIONS RSMPL_ENGINE_ENV=1)
endif()
