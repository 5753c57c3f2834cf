# One unit per expert quant format (0 IQ2_XXS, 1 IQ3_XXS, 2 MXFP4, 3 IQ2_S)
# for the MoE low-bit grouped products. Sets QUILLON_MOE_LOWBIT_INSTANCE_SOURCES.
set(QUILLON_MOE_LOWBIT_INSTANCE_SOURCES "")
foreach(Q 0 1 2 3)
  set(_out ${CMAKE_BINARY_DIR}/generated/moe/moe_lowbit_${Q}.cpp)
  configure_file(${CMAKE_CURRENT_LIST_DIR}/moe_lowbit_inst.cpp.in ${_out} @ONLY)
  list(APPEND QUILLON_MOE_LOWBIT_INSTANCE_SOURCES ${_out})
endforeach()
