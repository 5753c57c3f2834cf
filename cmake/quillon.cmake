# Flavour-wide compile settings. Both flavours: clang-19, no fp contraction (every
# fused multiply-add is an explicit fmaf), only quillon_* exported, and __FILE__
# relative to the source root so fatal messages carry stable paths. ccache with a
# base directory hands the compiler paths relative to the build dir, hence both maps.
file(RELATIVE_PATH QUILLON_SOURCE_FROM_BUILD ${CMAKE_BINARY_DIR} ${CMAKE_SOURCE_DIR})
string(REGEX REPLACE "/$" "" QUILLON_SOURCE_FROM_BUILD "${QUILLON_SOURCE_FROM_BUILD}")
set(QUILLON_PREFIX_MAPS -ffile-prefix-map=${CMAKE_SOURCE_DIR}/= -ffile-prefix-map=${QUILLON_SOURCE_FROM_BUILD}/=)
set(QUILLON_COMMON_FLAGS
  -ffp-contract=off -fvisibility=hidden -fvisibility-inlines-hidden
  ${QUILLON_PREFIX_MAPS}
  -Wall -Wextra -Wno-unused-parameter -Wno-unused-function -Wno-unused-result)

# QUILLON_GEOMETRIES as the compile-time geometry types, for the generators,
# and as the bit mask that csrc/device/geometry.h reads. The full set passes no
# define, so its command lines (and ccache's keys) stay those of the default.
set(QUILLON_GEOMETRY_TYPES "")
set(_quillon_geometry_mask 0)
foreach(id IN LISTS QUILLON_GEOMETRIES)
  if(NOT id MATCHES "^[0-3]$")
    message(FATAL_ERROR "QUILLON_GEOMETRIES is a list of geometry ids 0..3 such as \"0;1\", got \"${QUILLON_GEOMETRIES}\"")
  endif()
  math(EXPR _quillon_geometry_mask "${_quillon_geometry_mask} | (1 << ${id})")
endforeach()
set(_quillon_id 0)
foreach(type Qwen36MoeA3B Qwen3627B DeepSeekV4Flash Qwen38FlashNext)
  math(EXPR _quillon_bit "(${_quillon_geometry_mask} >> ${_quillon_id}) & 1")
  if(_quillon_bit)
    list(APPEND QUILLON_GEOMETRY_TYPES ${type})
  endif()
  math(EXPR _quillon_id "${_quillon_id} + 1")
endforeach()
if(NOT QUILLON_GEOMETRY_TYPES)
  message(FATAL_ERROR "QUILLON_GEOMETRIES names no geometry")
endif()
if(NOT _quillon_geometry_mask EQUAL 15)
  list(APPEND QUILLON_COMMON_FLAGS -DQUILLON_GEOMETRY_MASK=${_quillon_geometry_mask})
endif()

if(QUILLON_FLAVOUR STREQUAL "hip")
  # clang's device-side <new> wrapper expects malloc declared first.
  set(QUILLON_DEVICE_FLAGS -x hip --offload-arch=gfx1151 -nogpulib -nogpuinc -include stdlib.h
      -D__HIP_PLATFORM_AMD__ -DQUILLON_FLAVOUR_HIP=1)
  set(QUILLON_HOST_FLAGS -D__HIP_PLATFORM_AMD__ -DQUILLON_FLAVOUR_HIP=1)
  find_library(AMDHIP64 amdhip64 REQUIRED)
elseif(QUILLON_FLAVOUR STREQUAL "cpu")
  # The CPU build runs kernels on x86-64 with FMA, so fmaf is one instruction.
  set(QUILLON_DEVICE_FLAGS -march=x86-64-v3 -D__HIP_PLATFORM_AMD__ -DQUILLON_FLAVOUR_CPU=1)
  set(QUILLON_HOST_FLAGS ${QUILLON_DEVICE_FLAGS})
else()
  message(FATAL_ERROR "QUILLON_FLAVOUR must be hip or cpu")
endif()

# Sources with kernels get the device flags; host-only sources stay plain C++
# (in the hip flavour that skips a device pass).
function(quillon_sources target)
  cmake_parse_arguments(Q "" "" "HOST;DEVICE" ${ARGN})
  target_sources(${target} PRIVATE ${Q_HOST} ${Q_DEVICE})
  target_compile_options(${target} PRIVATE ${QUILLON_COMMON_FLAGS})
  foreach(f IN LISTS Q_DEVICE)
    set_property(SOURCE ${f} TARGET_DIRECTORY ${target} APPEND PROPERTY COMPILE_OPTIONS ${QUILLON_DEVICE_FLAGS})
  endforeach()
  foreach(f IN LISTS Q_HOST)
    set_property(SOURCE ${f} TARGET_DIRECTORY ${target} APPEND PROPERTY COMPILE_OPTIONS ${QUILLON_HOST_FLAGS})
  endforeach()
endfunction()
