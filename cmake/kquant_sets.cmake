# The k-quant format lists of include/quillon/kquant_sets.h, for build-time
# generators: quillon_kquant_set(<Set> <out-var>) sets <out-var> to the ids of
# the named set (KnownFormat, GeneralGemm, DenseProjection, RaggedK,
# DraftProjection) or of the complete list (Formats), in header order.
include_guard(GLOBAL)
set_property(DIRECTORY ${CMAKE_SOURCE_DIR} APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS
             ${CMAKE_SOURCE_DIR}/include/quillon/kquant_sets.h)

function(quillon_kquant_set set out)
  file(READ ${CMAKE_SOURCE_DIR}/include/quillon/kquant_sets.h text)
  if(set STREQUAL "Formats")
    string(REGEX MATCH "using Formats = ValueList<([0-9, ]+)>" m "${text}")
  else()
    string(REGEX MATCH "struct ${set} : FormatSet<([0-9, ]+)>" m "${text}")
  endif()
  if(NOT m)
    message(FATAL_ERROR "kquant_sets.h has no set named ${set}")
  endif()
  string(REPLACE " " "" ids "${CMAKE_MATCH_1}")
  string(REPLACE "," ";" ids "${ids}")
  set(${out} ${ids} PARENT_SCOPE)
endfunction()
