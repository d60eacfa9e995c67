# varnel_library(NAME FOLDER <folder below src> SOURCES ... [DEPENDS targets...] [LIBS external targets...])
#
# One library per folder of src. Its headers are reachable only as "<folder>/<file>.h" and only by targets that
# list it in DEPENDS: each library gets an include root of its own that holds a single link to its folder, so an
# include against the direction of the dependencies does not compile. Without SOURCES the target is header-only.
function(varnel_library name)
  cmake_parse_arguments(ARG "" "FOLDER" "SOURCES;DEPENDS;LIBS" ${ARGN})
  set(root ${PROJECT_BINARY_DIR}/include/${name})
  # Anew: a link of an earlier layout would lead the next steps into the sources.
  file(REMOVE_RECURSE ${root})
  get_filename_component(parent ${root}/${ARG_FOLDER} DIRECTORY)
  file(MAKE_DIRECTORY ${parent})
  file(CREATE_LINK ${PROJECT_SOURCE_DIR}/src/${ARG_FOLDER} ${root}/${ARG_FOLDER} SYMBOLIC)
  if(ARG_SOURCES)
    add_library(${name} STATIC ${ARG_SOURCES})
    target_include_directories(${name} PUBLIC ${root})
    target_link_libraries(${name} PUBLIC varnel_flags ${ARG_DEPENDS} ${ARG_LIBS})
    varnel_use_pch(${name})
  else()
    add_library(${name} INTERFACE)
    target_include_directories(${name} INTERFACE ${root})
    target_link_libraries(${name} INTERFACE varnel_flags ${ARG_DEPENDS} ${ARG_LIBS})
  endif()
endfunction()

# The heavy library headers are parsed once for the whole build.
function(varnel_use_pch name)
  if(VARNEL_PCH)
    target_precompile_headers(${name} REUSE_FROM varnel_pch)
  endif()
endfunction()

# varnel_unit_test(NAME SOURCES ... DEPENDS ... [LAUNCHER program]): a GoogleTest program, labelled "unit" for ctest.
function(varnel_unit_test name)
  cmake_parse_arguments(ARG "" "TIMEOUT;LAUNCHER" "SOURCES;DEPENDS;LIBS" ${ARGN})
  if(NOT ARG_TIMEOUT)
    set(ARG_TIMEOUT 300)
  endif()
  add_executable(${name} ${ARG_SOURCES})
  target_include_directories(${name} PRIVATE ${PROJECT_SOURCE_DIR}/tests)
  target_link_libraries(${name} PRIVATE varnel_flags ${ARG_DEPENDS} ${ARG_LIBS} GTest::gmock_main)
  varnel_use_pch(${name})
  if(NOT TARGET unit_tests)
    add_custom_target(unit_tests)
  endif()
  add_dependencies(unit_tests ${name})
  if(ARG_LAUNCHER)
    add_test(NAME ${name} COMMAND ${ARG_LAUNCHER} $<TARGET_FILE:${name}>)
  else()
    add_test(NAME ${name} COMMAND ${name})
  endif()
  set_tests_properties(${name} PROPERTIES LABELS unit TIMEOUT ${ARG_TIMEOUT}
    ENVIRONMENT "TSAN_OPTIONS=suppressions=${PROJECT_SOURCE_DIR}/tests/tsan.supp;LSAN_OPTIONS=suppressions=${PROJECT_SOURCE_DIR}/tests/lsan.supp")
endfunction()
