# Every target links this one: the warnings, the sanitizer and the hardening of the whole build.
add_library(varnel_flags INTERFACE)
target_compile_options(varnel_flags INTERFACE
  -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wnon-virtual-dtor -Wsuggest-override -Wold-style-cast)
if(VARNEL_WERROR)
  target_compile_options(varnel_flags INTERFACE -Werror)
endif()

if(VARNEL_SANITIZE)
  target_compile_options(varnel_flags INTERFACE -fsanitize=${VARNEL_SANITIZE} -fno-omit-frame-pointer
    -fno-sanitize-recover=all)
  target_link_options(varnel_flags INTERFACE -fsanitize=${VARNEL_SANITIZE})
  # GCC's flow analysis sees the sanitizers' extra branches and warns about library code that is right.
  target_compile_options(varnel_flags INTERFACE -Wno-maybe-uninitialized -Wno-tsan)
else()
  # -rdynamic lets the crash report name functions.
  target_link_options(varnel_flags INTERFACE -rdynamic -Wl,-z,relro,-z,now)
  target_compile_options(varnel_flags INTERFACE -fstack-protector-strong
    $<$<CONFIG:Release>:-U_FORTIFY_SOURCE> $<$<CONFIG:Release>:-D_FORTIFY_SOURCE=2>)
endif()

find_program(VARNEL_CCACHE ccache)
if(VARNEL_CCACHE)
  # A checkout elsewhere finds the same objects; the sloppiness is what ccache asks for with a precompiled header.
  set(launcher ${CMAKE_COMMAND} -E env CCACHE_BASEDIR=${PROJECT_SOURCE_DIR} CCACHE_NOHASHDIR=true
    CCACHE_SLOPPINESS=pch_defines,time_macros,include_file_mtime,include_file_ctime
    ${VARNEL_CCACHE})
  set(CMAKE_CXX_COMPILER_LAUNCHER ${launcher})
  set(CMAKE_C_COMPILER_LAUNCHER ${launcher})
endif()
