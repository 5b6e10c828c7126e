# What every target of ours is compiled with, and how a family of pipelines is generated.

function(korimg_check_found what)
  foreach(variable ${ARGN})
    if(NOT ${variable})
      message(FATAL_ERROR "korimg is built with ${what}, which is not found. On Debian, `tools/setup build` installs all that "
                          "is needed; elsewhere, install it, and name its place by -DCMAKE_PREFIX_PATH=...")
    endif()
  endforeach()
endfunction()

# korimg_require(PACKAGE ...): find_package, with an error that says what to do.
macro(korimg_require package)
  find_package(${package} QUIET ${ARGN})
  string(JOIN " " wanted ${package} ${ARGN})
  korimg_check_found("${wanted}" ${package}_FOUND)
endmacro()

# korimg_require_module(PREFIX MODULE [GLOBAL]): the same for PkgConfig::PREFIX, of a module of pkg-config.
macro(korimg_require_module prefix module)
  korimg_require(PkgConfig)
  pkg_check_modules(${prefix} QUIET IMPORTED_TARGET ${ARGN} ${module})
  korimg_check_found(${module} ${prefix}_FOUND)
endmacro()

korimg_require(OpenMP COMPONENTS CXX)
find_path(HALIDE_INCLUDE_DIR Halide.h PATH_SUFFIXES halide14)
find_library(HALIDE_LIBRARY NAMES Halide14 Halide)
korimg_check_found("Halide 14" HALIDE_INCLUDE_DIR HALIDE_LIBRARY)

function(korimg_compile_options target)
  target_compile_options(${target} PRIVATE -Wall -Wextra -Werror -Wno-missing-field-initializers)
  if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    # False alarms of g++ 12 on strings and regular expressions.
    target_compile_options(${target} PRIVATE -Wno-restrict -Wno-stringop-overflow -Wno-maybe-uninitialized)
  else()
    target_compile_options(${target} PRIVATE -Wno-pass-failed)  # sanitizers keep loops from being vectors
  endif()
  if(KORIMG_ASSERTIONS)
    target_compile_definitions(${target} PRIVATE KORIMG_ASSERTIONS _GLIBCXX_ASSERTIONS)
  endif()
  if(KORIMG_SANITIZE)
    target_compile_options(${target} PRIVATE -fsanitize=${KORIMG_SANITIZE} -fno-omit-frame-pointer
                                             -fno-sanitize-recover=all)
    target_link_options(${target} PRIVATE -fsanitize=${KORIMG_SANITIZE})
  endif()
endfunction()

# For sources whose own speed does not count: compiled in half the time.
function(korimg_quick_compilation target)
  target_compile_options(${target} PRIVATE $<$<NOT:$<CONFIG:Debug>>:-O1>)
endfunction()

# korimg_pipeline_family(NAME [SHARDS n]): builds the generator of NAME.cpp and runs it in n processes, each of which
# writes its objects, declarations and table rows: <NAME>.<shard>.a, .h and .inc.
function(korimg_pipeline_family name)
  cmake_parse_arguments(ARG "" "SHARDS" "" ${ARGN})
  if(NOT ARG_SHARDS)
    set(ARG_SHARDS 1)
  endif()
  set(generator korimg_generate_${name})
  add_executable(${generator} ${name}.cpp)
  set_target_properties(${generator} PROPERTIES POSITION_INDEPENDENT_CODE OFF)  # as the precompiled header
  target_link_libraries(${generator} PRIVATE korimg_pipeline_driver)
  target_precompile_headers(${generator} REUSE_FROM korimg_pipeline_driver)
  set(out ${CMAKE_CURRENT_BINARY_DIR}/generated)
  math(EXPR last "${ARG_SHARDS} - 1")
  foreach(shard RANGE ${last})
    set(part ${out}/${name}.${shard})
    add_custom_command(
      OUTPUT ${part}.a ${part}.h ${part}.inc
      COMMAND ${generator} --family ${name} --out ${out} --shard ${shard}/${ARG_SHARDS}
              --forms "${KORIMG_PIPELINE_FORMS}" --ar ${CMAKE_AR}
      DEPENDS ${generator}
      COMMENT "Pipelines: ${name} (${shard})"
      VERBATIM)
    list(APPEND outputs ${part}.a ${part}.h ${part}.inc)
    set_property(GLOBAL APPEND PROPERTY KORIMG_PIPELINE_ARCHIVES ${part}.a)
    set_property(GLOBAL APPEND PROPERTY KORIMG_PIPELINE_PARTS ${name}.${shard})
  endforeach()
  add_custom_target(korimg_pipelines_${name} DEPENDS ${outputs})
  set_property(GLOBAL APPEND PROPERTY KORIMG_PIPELINE_TARGETS korimg_pipelines_${name})
endfunction()
