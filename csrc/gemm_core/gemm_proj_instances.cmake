# The named projections: one row per (name, weight form) with its K:N per
# geometry. From this one table the build generates
#   - one unit per weight form and K (per format for k-quant, per N for fp8)
#     holding its shapes and their kernels: prefill, decode at row tiles 16
#     and 32, and every split count its K allows at both row tiles;
#   - the fused decode launches, one unit per kind, geometry and first-arm
#     format (see QUILLON_PROJ_FUSED_TABLE below);
#   - the named entries with their scratch functions, and the header that
#     declares them and keeps the shapes from being instantiated elsewhere.
# A row ending in "@ops" is declared in quillon_gen/proj_named_ops.h instead:
# the operators that call it include that header, and the fused units, which
# do not, keep their preprocessed text (and their cache entries).
# QUILLON_PROJ_GEOMETRIES bounds which geometries are instantiated; a name
# called at any other geometry fails with the geometry message.
# Sets QUILLON_PROJ_INSTANCE_SOURCES, heaviest units first: ninja starts them in
# this order, so the long ones do not run alone at the end of a build.
set(QUILLON_PROJ_TABLE
  "qkv_proj bf16 Qwen36MoeA3B:2048:9216 Qwen3627B:5120:14336 Qwen38FlashNext:2560:13312"
  "qkv_proj_fp8 fp8 Qwen36MoeA3B:2048:9216 Qwen3627B:5120:14336 Qwen38FlashNext:2560:13312"
  "qkv_proj_kquant kquant Qwen36MoeA3B:2048:9216 Qwen3627B:5120:14336 Qwen38FlashNext:2560:13312"
  "qkv_proj_index bf16 Qwen38FlashNext:2560:640"
  "attn_out_scale_oproj bf16 Qwen36MoeA3B:4096:2048 Qwen3627B:6144:5120 Qwen38FlashNext:6144:2560"
  "attn_out_scale_oproj_fp8 fp8 Qwen36MoeA3B:4096:2048 Qwen3627B:6144:5120 Qwen38FlashNext:6144:2560"
  "attn_out_scale_oproj_kquant kquant Qwen36MoeA3B:4096:2048 Qwen3627B:6144:5120 Qwen38FlashNext:6144:2560"
  "linear_in_proj bf16 Qwen36MoeA3B:2048:12416 Qwen3627B:5120:16512 Qwen38FlashNext:2560:16512"
  "linear_in_proj_qz_fp8 fp8 Qwen36MoeA3B:2048:12288 Qwen3627B:5120:16384 Qwen38FlashNext:2560:16384"
  "linear_in_proj_qz_kquant kquant Qwen36MoeA3B:2048:12288 Qwen3627B:5120:16384 Qwen38FlashNext:2560:16384"
  "linear_in_proj_qkv_kquant kquant Qwen36MoeA3B:2048:8192 Qwen3627B:5120:10240 Qwen38FlashNext:2560:10240"
  "linear_in_proj_z_kquant kquant Qwen36MoeA3B:2048:4096 Qwen3627B:5120:6144 Qwen38FlashNext:2560:6144"
  "linear_in_proj_ba bf16 Qwen36MoeA3B:2048:128 Qwen3627B:5120:128 Qwen38FlashNext:2560:128"
  "linear_out_proj bf16 Qwen36MoeA3B:4096:2048 Qwen3627B:6144:5120 Qwen38FlashNext:6144:2560"
  "linear_out_proj_fp8 fp8 Qwen36MoeA3B:4096:2048 Qwen3627B:6144:5120 Qwen38FlashNext:6144:2560"
  "linear_out_proj_kquant kquant Qwen36MoeA3B:4096:2048 Qwen3627B:6144:5120 Qwen38FlashNext:6144:2560"
  "qkv_proj_qk_kquant kquant Qwen36MoeA3B:2048:8704 Qwen3627B:5120:13312 Qwen38FlashNext:2560:12800"
  "qkv_proj_v_kquant kquant Qwen36MoeA3B:2048:512 Qwen3627B:5120:1024 Qwen38FlashNext:2560:512"
  "qkv_proj_q_kquant kquant Qwen36MoeA3B:2048:8192 Qwen3627B:5120:12288 Qwen38FlashNext:2560:12288"
  "qkv_proj_kv bf16 Qwen36MoeA3B:2048:1024 Qwen3627B:5120:2048 Qwen38FlashNext:2560:1024"
  "mlp_gate_kquant kquant Qwen3627B:5120:17408"
  "mlp_up_kquant kquant Qwen3627B:5120:17408"
  "mlp_gate_up bf16 Qwen3627B:5120:34816 @ops"
  "mlp_gate_up_fp8 fp8 Qwen3627B:5120:34816 @ops"
  "mlp_gate_up_kquant kquant Qwen3627B:5120:34816 @ops"
  "mlp_swiglu_down bf16 Qwen3627B:17408:5120 @ops"
  "mlp_swiglu_down_fp8 fp8 Qwen3627B:17408:5120 @ops"
  "mlp_swiglu_down_kquant kquant Qwen3627B:17408:5120 @ops"
)
# The fused decode launches (gemm_proj_fused.h): each exists at the geometries
# where the named projection beside it has a shape, one unit per format of its
# first arm ("arms": and of the set's formats for its second k-quant arm). The
# grouped launch has one fixed shape and no geometry.
set(QUILLON_PROJ_FUSED_TABLE
  "FusedQkvPair qkv_proj_qk_kquant arms"
  "FusedQKv qkv_proj_q_kquant"
  "FusedMlpPair mlp_gate_kquant arms"
  "FusedTriple linear_in_proj_z_kquant arms"
)
# First-arm formats whose "arms" units take twice as long as the others (IQ4
# decodes through its codebook; about 20 s on one core for the cpu flavour):
# each is split over two units, by the first and second part of the set.
set(QUILLON_PROJ_FUSED_SPLIT 20 23)
if(NOT DEFINED QUILLON_PROJ_GEOMETRIES)
  set(QUILLON_PROJ_GEOMETRIES ${QUILLON_GEOMETRY_TYPES})
endif()

include(${CMAKE_SOURCE_DIR}/cmake/kquant_sets.cmake)
quillon_kquant_set(DenseProjection _quillon_proj_formats)
set(_proj_dir ${CMAKE_BINARY_DIR}/generated)
set(QUILLON_PROJ_INSTANCE_SOURCES "")
set(_proj_shape_sources "")
set(_proj_shapes "")
set(_proj_units "")
set(_proj_decls "")
set(_proj_externs "")
set(_proj_defs "")
set(_ops_externs "")
set(_ops_decls "")
set(_ops_defs "")

function(_quillon_proj_form form out)
  if(form STREQUAL "bf16")
    set(${out} FormBf16 PARENT_SCOPE)
  elseif(form STREQUAL "fp8")
    set(${out} FormFp8 PARENT_SCOPE)
  else()
    set(${out} FormKQuant PARENT_SCOPE)
  endif()
endfunction()

foreach(row IN LISTS QUILLON_PROJ_TABLE)
  string(REPLACE " " ";" row "${row}")
  list(POP_FRONT row NAME FORM)
  set(_grp proj)
  if("@ops" IN_LIST row)
    list(REMOVE_ITEM row "@ops")
    set(_grp ops)
  endif()
  _quillon_proj_form(${FORM} FORM_T)
  set(_ats "")
  set(_shape "")
  set(_geoms_${NAME} "")
  foreach(cell IN LISTS row)
    string(REPLACE ":" ";" cell "${cell}")
    list(GET cell 0 G)
    list(GET cell 1 K)
    list(GET cell 2 N)
    if(NOT G IN_LIST QUILLON_PROJ_GEOMETRIES)
      continue()
    endif()
    string(APPEND _ats ", At<${G}, ${K}, ${N}>{}")
    string(APPEND _shape "g == ${G}::id ? KN{${K}, ${N}} : ")
    list(APPEND _geoms_${NAME} ${G})
    set(key "${FORM}_${K}_${N}")
    if(key IN_LIST _proj_shapes)
      continue()
    endif()
    list(APPEND _proj_shapes ${key})
    if(FORM STREQUAL "kquant")
      set(_ws "")
      foreach(F IN LISTS _quillon_proj_formats)
        list(APPEND _ws "WDenseKQuant<${F}>, 0")
      endforeach()
    elseif(FORM STREQUAL "fp8")
      set(_ws "WDenseFp8, ${N}")
    else()
      set(_ws "WDenseBf16, 0")
    endif()
    foreach(w IN LISTS _ws)
      string(REGEX REPLACE "[^A-Za-z0-9]+" "_" tag "${w}")
      set(SHAPE "ProjShape<gemm_core::${w}, ${K}, ${N}>")
      string(APPEND _${_grp}_externs "extern template struct ${SHAPE};\n")
      # Shapes of one weight form and K share their kernels (N is not part of
      # a Config but for fp8, whose tag carries it): one unit compiles them once.
      set(ukey "${tag}_${K}")
      if(NOT ukey IN_LIST _proj_units)
        list(APPEND _proj_units ${ukey})
        set(_unit_${ukey} "")
      endif()
      string(APPEND _unit_${ukey} "template struct ${SHAPE};\n")
    endforeach()
  endforeach()
  # A name with no geometry in this build still exists: it fails with the
  # geometry message.
  string(APPEND _${_grp}_decls "constexpr KN ${NAME}_shape(int32_t g) { (void)g; return ${_shape}KN{0, 0}; }\n")
  string(APPEND _${_grp}_decls "void ${NAME}(const ProjCall& c, const ${FORM_T}::Weight& w);\nint64_t ${NAME}_scratch_bytes(int64_t M);\n")
  string(APPEND _${_grp}_defs "void ${NAME}(const ProjCall& c, const ${FORM_T}::Weight& w) {\n  run_named<${FORM_T}>(\"${NAME}\", c, w${_ats});\n}\n")
  string(APPEND _${_grp}_defs "int64_t ${NAME}_scratch_bytes(int64_t M) { return scratch_named(M${_ats}); }\n")
endforeach()

foreach(ukey IN LISTS _proj_units)
  set(_out ${_proj_dir}/proj/proj_${ukey}.cpp)
  file(CONFIGURE OUTPUT ${_out} @ONLY CONTENT
"// Generated from csrc/gemm_core/gemm_proj_instances.cmake: the projection
// shapes of one weight form and K.
#include \"gemm_core/gemm_proj_core.h\"

namespace quillon::proj {
${_unit_${ukey}}}  // namespace quillon::proj
")
  list(APPEND _proj_shape_sources ${_out})
endforeach()

function(_quillon_proj_unit out content)
  file(CONFIGURE OUTPUT ${out} @ONLY CONTENT
"// Generated from csrc/gemm_core/gemm_proj_instances.cmake: fused decode launches.
#include \"gemm_core/gemm_proj_fused.h\"

namespace quillon::proj {
${content}}  // namespace quillon::proj
")
  set(QUILLON_PROJ_INSTANCE_SOURCES ${QUILLON_PROJ_INSTANCE_SOURCES} ${out} PARENT_SCOPE)
endfunction()

set(_grouped "")
foreach(F IN LISTS _quillon_proj_formats)
  string(APPEND _grouped "template struct FusedGrouped<${F}>;\n")
endforeach()
_quillon_proj_unit(${_proj_dir}/proj/fused_grouped.cpp "${_grouped}")
list(LENGTH _quillon_proj_formats _n)
math(EXPR _n "${_n} / 2")
list(SUBLIST _quillon_proj_formats 0 ${_n} _arms_low)
list(SUBLIST _quillon_proj_formats ${_n} -1 _arms_high)
string(REPLACE ";" ", " _low "${_arms_low}")
string(REPLACE ";" ", " _high "${_arms_high}")
set(_split_test "")
foreach(F IN LISTS QUILLON_PROJ_FUSED_SPLIT)
  list(APPEND _split_test "f0 == ${F}")
endforeach()
list(JOIN _split_test " || " _split_test)
if(NOT _split_test)
  set(_split_test "false")
endif()
string(APPEND _proj_decls "using FusedArmsLow = kq::FormatSet<${_low}>;\nusing FusedArmsHigh = kq::FormatSet<${_high}>;\n")
string(APPEND _proj_decls "constexpr bool fused_split(int f0) { return ${_split_test}; }\n")
# The split first arms (IQ4, last in the set) are the longest: they go first.
set(_fused_formats ${_quillon_proj_formats})
list(REVERSE _fused_formats)
foreach(row IN LISTS QUILLON_PROJ_FUSED_TABLE)
  string(REPLACE " " ";" row "${row}")
  list(GET row 0 KIND)
  list(GET row 1 NAME)
  string(REPLACE ";" ", " _at "${_geoms_${NAME}}")
  string(APPEND _proj_decls "using ${KIND}At = Geometries<${_at}>;\n")
  foreach(G IN LISTS _geoms_${NAME})
    foreach(F IN LISTS _fused_formats)
      set(_u ${_proj_dir}/proj/fused_${KIND}_${G}_${F})
      if("arms" IN_LIST row AND F IN_LIST QUILLON_PROJ_FUSED_SPLIT)
        _quillon_proj_unit(${_u}_a.cpp "template struct ${KIND}<${G}, ${F}, FusedArmsLow>;\n")
        _quillon_proj_unit(${_u}_b.cpp "template struct ${KIND}<${G}, ${F}, FusedArmsHigh>;\n")
      else()
        _quillon_proj_unit(${_u}.cpp "template struct ${KIND}<${G}, ${F}>;\n")
      endif()
    endforeach()
  endforeach()
endforeach()
list(APPEND QUILLON_PROJ_INSTANCE_SOURCES ${_proj_shape_sources})

file(CONFIGURE OUTPUT ${_proj_dir}/quillon_gen/proj_named.h @ONLY CONTENT
"// Generated from csrc/gemm_core/gemm_proj_instances.cmake: the named
// projections of this build and the shapes compiled in their own units.
#pragma once
namespace quillon::proj {
@_proj_externs@
@_proj_decls@
}  // namespace quillon::proj
")
set(_out ${_proj_dir}/proj/proj_named.cpp)
file(CONFIGURE OUTPUT ${_out} @ONLY CONTENT
"// Generated from csrc/gemm_core/gemm_proj_instances.cmake: the named entries.
#include \"gemm_core/gemm_entry_proj.h\"

namespace quillon::proj {
@_proj_defs@
}  // namespace quillon::proj
")
list(APPEND QUILLON_PROJ_INSTANCE_SOURCES ${_out})
file(CONFIGURE OUTPUT ${_proj_dir}/quillon_gen/proj_named_ops.h @ONLY CONTENT
"// Generated from csrc/gemm_core/gemm_proj_instances.cmake: the named
// projections of the rows marked @ops, for the operators that call them.
#pragma once
#include \"gemm_core/gemm_entry_proj.h\"

namespace quillon::proj {
@_ops_externs@
@_ops_decls@
}  // namespace quillon::proj
")
set(_out ${_proj_dir}/proj/proj_named_ops.cpp)
file(CONFIGURE OUTPUT ${_out} @ONLY CONTENT
"// Generated from csrc/gemm_core/gemm_proj_instances.cmake: the named entries of the @ops rows.
#include \"quillon_gen/proj_named_ops.h\"

namespace quillon::proj {
@_ops_defs@
}  // namespace quillon::proj
")
list(APPEND QUILLON_PROJ_INSTANCE_SOURCES ${_out})
