# One target carries the flags of every target of the project.
add_library(kfp_flags INTERFACE)
target_include_directories(kfp_flags INTERFACE ${PROJECT_SOURCE_DIR}/src)
target_compile_options(kfp_flags INTERFACE -Wall -Wextra -Wpedantic
                       -Wno-missing-field-initializers)
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
  # g++ 12 reports std::string's own concatenation when it inlines it.
  target_compile_options(kfp_flags INTERFACE -Wshadow=local -Wno-restrict)
else()
  target_compile_options(kfp_flags INTERFACE -Wthread-safety)
endif()

option(KFP_WERROR "treat warnings as errors" OFF)
if(KFP_WERROR)
  target_compile_options(kfp_flags INTERFACE -Werror)
endif()

if(KFP_SANITIZE)
  target_compile_options(kfp_flags INTERFACE -fsanitize=${KFP_SANITIZE} -fno-omit-frame-pointer
                         -fno-sanitize-recover=all)
  target_link_options(kfp_flags INTERFACE -fsanitize=${KFP_SANITIZE})
  if(CMAKE_CXX_COMPILER_ID MATCHES "Clang" AND KFP_SANITIZE MATCHES "undefined")
    # clang 14 cannot put this check into coroutines.
    target_compile_options(kfp_flags INTERFACE -fno-sanitize=function)
  endif()
endif()

set(CMAKE_POSITION_INDEPENDENT_CODE ON)
include(CheckPIESupported)
check_pie_supported()
if(CMAKE_BUILD_TYPE STREQUAL "Release")
  target_compile_options(kfp_flags INTERFACE -fstack-protector-strong)
  target_compile_definitions(kfp_flags INTERFACE _FORTIFY_SOURCE=2 _GLIBCXX_ASSERTIONS)
  if(NOT APPLE)
    target_link_options(kfp_flags INTERFACE LINKER:-z,relro,-z,now)
  endif()
endif()
