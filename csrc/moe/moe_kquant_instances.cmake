# One unit per general-GEMM k-quant format for the MoE grouped products (the
# longest MoE compiles, spread over the build). Sets
# QUILLON_MOE_KQUANT_INSTANCE_SOURCES.
include(${CMAKE_SOURCE_DIR}/cmake/kquant_sets.cmake)
quillon_kquant_set(GeneralGemm _quillon_moe_kq_formats)
set(QUILLON_MOE_KQUANT_INSTANCE_SOURCES "")
foreach(F IN LISTS _quillon_moe_kq_formats)
  set(_out ${CMAKE_BINARY_DIR}/generated/moe/moe_kquant_${F}.cpp)
  configure_file(${CMAKE_CURRENT_LIST_DIR}/moe_kquant_inst.cpp.in ${_out} @ONLY)
  list(APPEND QUILLON_MOE_KQUANT_INSTANCE_SOURCES ${_out})
endforeach()
