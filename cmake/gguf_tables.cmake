# The device constant tables of the GGUF formats, generated at build time from
# the data files in data/gguf/tables. quillon_gguf_tables(<target>) adds the
# generated header to <target> and its include directory to its users.
include_guard(GLOBAL)
find_package(Python3 REQUIRED COMPONENTS Interpreter)

set(QUILLON_GGUF_TABLE_DIR ${CMAKE_SOURCE_DIR}/data/gguf/tables)
set(QUILLON_GENERATED_DIR ${CMAKE_BINARY_DIR}/generated)
set(QUILLON_GGUF_TABLES_H ${QUILLON_GENERATED_DIR}/quillon_gen/gguf_tables.h)
file(GLOB QUILLON_GGUF_TABLE_FILES CONFIGURE_DEPENDS ${QUILLON_GGUF_TABLE_DIR}/*.txt)

add_custom_command(
  OUTPUT ${QUILLON_GGUF_TABLES_H}
  COMMAND ${Python3_EXECUTABLE} ${CMAKE_SOURCE_DIR}/tools/gen_gguf_tables.py ${QUILLON_GGUF_TABLE_DIR}
          ${QUILLON_GGUF_TABLES_H}
  DEPENDS ${CMAKE_SOURCE_DIR}/tools/gen_gguf_tables.py ${QUILLON_GGUF_TABLE_FILES}
  COMMENT "Generating GGUF device tables"
  VERBATIM)
add_custom_target(quillon_gguf_tables DEPENDS ${QUILLON_GGUF_TABLES_H})

function(quillon_gguf_tables target)
  add_dependencies(${target} quillon_gguf_tables)
  target_include_directories(${target} PUBLIC $<BUILD_INTERFACE:${CMAKE_BINARY_DIR}/generated>)
endfunction()
