# Instantiation units of the general k-quant GEMM, generated from the
# general-GEMM list of include/quillon/kquant_sets.h (the one source of which
# formats exist): one unit per (format, output type), the blk32 form riding with
# bf16 and the split form (fp32 partials whatever the output) with fp32, and one
# per fp32-arm format of the segmented pair. Also writes the list
# as a macro for the extern declarations of gemm_general.h.
# Sets QUILLON_GEMM_INSTANCE_SOURCES and QUILLON_GEMM_GENERATED_DIR.
include(${CMAKE_SOURCE_DIR}/cmake/kquant_sets.cmake)
quillon_kquant_set(GeneralGemm _quillon_gemm_formats)
set(QUILLON_GEMM_GENERATED_DIR ${CMAKE_BINARY_DIR}/generated)
set(_quillon_gemm_x "")
foreach(F IN LISTS _quillon_gemm_formats)
  string(APPEND _quillon_gemm_x " X(${F})")
endforeach()
file(CONFIGURE OUTPUT ${QUILLON_GEMM_GENERATED_DIR}/quillon_gen/gemm_formats.h @ONLY CONTENT
"// Generated from include/quillon/kquant_sets.h: the general-GEMM formats.
#pragma once
#define QUILLON_GENERAL_GEMM_FORMATS(X)${_quillon_gemm_x}
")
set(QUILLON_GEMM_INSTANCE_SOURCES "")
foreach(F IN LISTS _quillon_gemm_formats)
  foreach(T float bf16)
    if(T STREQUAL "bf16")
      set(TYPE "gemm_core::bf16")
      set(BLK32_NOTE ", and its blk32 form")
      set(BLK32_LINE "template void gemm_kquant_blk32_run<${F}>(const gemm_core::GemmBlk32Params<gemm_core::KQuantPlanes>&, hipStream_t);")
    else()
      set(TYPE "float")
      set(BLK32_NOTE ", and the split kernel of both output types")
      set(BLK32_LINE "template void gemm_kquant_splitk_launch<${F}>(const gemm_core::GemmSplitParams<gemm_core::KQuantPlanes>&, int, hipStream_t);")
    endif()
    set(_out ${QUILLON_GEMM_GENERATED_DIR}/gemm/gemm_kquant_${F}_${T}.cpp)
    configure_file(${CMAKE_CURRENT_LIST_DIR}/gemm_kquant_inst.cpp.in ${_out} @ONLY)
    list(APPEND QUILLON_GEMM_INSTANCE_SOURCES ${_out})
  endforeach()
  set(_out ${QUILLON_GEMM_GENERATED_DIR}/gemm/gemm_seg_${F}.cpp)
  configure_file(${CMAKE_CURRENT_LIST_DIR}/gemm_seg_inst.cpp.in ${_out} @ONLY)
  list(APPEND QUILLON_GEMM_INSTANCE_SOURCES ${_out})
endforeach()
