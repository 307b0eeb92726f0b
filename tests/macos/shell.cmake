# The shell's tests on GNUstep. Its sources need clang (for blocks), the module may be built by
# whichever compiler the build uses.
if(CMAKE_CXX_COMPILER_ID MATCHES "Clang")
  set(KFP_OBJCXX ${CMAKE_CXX_COMPILER})
else()
  find_program(KFP_OBJCXX NAMES clang++ clang++-14)
endif()
find_path(KFP_GNUSTEP_INCLUDE Foundation/Foundation.h PATHS /usr/include/GNUstep
          NO_DEFAULT_PATH)
find_library(KFP_GNUSTEP gnustep-base)
find_library(KFP_BLOCKS BlocksRuntime)
file(GLOB runtimes /usr/lib/gcc/${CMAKE_LIBRARY_ARCHITECTURE}/*/include/objc/objc.h)
foreach(needed "KFP_OBJCXX;clang" "KFP_GNUSTEP_INCLUDE;libgnustep-base-dev"
               "KFP_GNUSTEP;libgnustep-base-dev" "KFP_BLOCKS;libblocksruntime-dev"
               "runtimes;libobjc-12-dev")
  list(GET needed 0 variable)
  list(GET needed 1 package)
  if(NOT ${variable})
    # A test that is skipped says so in every report; a missing one would not.
    set(reason "skipped: the shell is not built, because the package ${package} is missing")
    message(STATUS "${reason}")
    add_test(NAME macos/shell COMMAND sh -c "echo '${reason}'; exit 77")
    set_tests_properties(macos/shell PROPERTIES LABELS macos SKIP_RETURN_CODE 77)
    return()
  endif()
endforeach()
list(GET runtimes -1 runtime)
cmake_path(GET runtime PARENT_PATH runtime)
cmake_path(GET runtime PARENT_PATH KFP_OBJC_INCLUDE)

set(CMAKE_OBJCXX_COMPILER ${KFP_OBJCXX})
set(CMAKE_OBJCXX_FLAGS_DEBUG "${CMAKE_CXX_FLAGS_DEBUG}" CACHE STRING "")
enable_language(OBJCXX)
set(CMAKE_OBJCXX_STANDARD 20)
set(CMAKE_OBJCXX_STANDARD_REQUIRED ON)
set(CMAKE_OBJCXX_EXTENSIONS OFF)

set(objcxx $<COMPILE_LANGUAGE:OBJCXX>)
add_library(kfp_gnustep INTERFACE)
target_include_directories(kfp_gnustep SYSTEM INTERFACE
  ${CMAKE_CURRENT_SOURCE_DIR}/frameworks
  ${CMAKE_CURRENT_SOURCE_DIR}/gnustep
  ${KFP_GNUSTEP_INCLUDE}
  $<${objcxx}:${KFP_OBJC_INCLUDE}>)
target_compile_options(kfp_gnustep INTERFACE
  "$<${objcxx}:-fobjc-runtime=gcc;-fblocks;-fobjc-exceptions;-fconstant-string-class=NSConstantString>"
  # The common flags may be meant for another compiler.
  "$<${objcxx}:-Wno-unknown-warning-option;-Wno-shadow>")
target_compile_definitions(kfp_gnustep INTERFACE
  GNUSTEP GNUSTEP_BASE_LIBRARY=1 GNU_RUNTIME=1 _NATIVE_OBJC_EXCEPTIONS)
# In this order: GNUstep has functions of the same names for blocks that do not work for these.
target_link_libraries(kfp_gnustep INTERFACE ${KFP_BLOCKS} ${KFP_GNUSTEP} objc)

get_property(shell_sources GLOBAL PROPERTY KFP_MACOS_SOURCES)
add_executable(macos_shell_test
  ${shell_sources}
  ${PROJECT_SOURCE_DIR}/tests/support/ScriptedServer.cpp
  double/FileProvider.mm
  double/UTType.mm
  double/UnifiedLog.mm
  gnustep/Personality.cpp
  gnustep/Suppressions.cpp
  shell/ApacheTest.mm
  shell/ConversionTest.mm
  shell/EntryPointTest.mm
  shell/EnumeratorTest.mm
  shell/FPItemTest.mm
  shell/GroupContainerTest.mm
  shell/LifetimeTest.mm
  shell/LiveObjects.mm
  shell/LiveObjectsTest.mm
  shell/LogTest.mm
  shell/ProtocolTest.mm
  shell/RefusalTest.mm
  shell/ServerTest.mm
  shell/ShellTest.mm
  shell/TestObjects.mm)
target_include_directories(macos_shell_test PRIVATE ${PROJECT_SOURCE_DIR}/tests
                           ${CMAKE_CURRENT_SOURCE_DIR})
target_compile_definitions(macos_shell_test PRIVATE
  KFP_SOURCE_DIR="${PROJECT_SOURCE_DIR}"
  KFP_INFO_PLIST="${PROJECT_BINARY_DIR}/src/macos/Info.plist")
target_link_libraries(macos_shell_test PRIVATE
  kfp_extension kfp_test_support GTest::gtest_main kfp_gnustep)
set_target_properties(macos_shell_test PROPERTIES LINKER_LANGUAGE OBJCXX)
gtest_discover_tests(macos_shell_test DISCOVERY_TIMEOUT 60 TEST_PREFIX macos/
                     PROPERTIES LABELS macos TIMEOUT 300)
