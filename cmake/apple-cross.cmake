# Builds the app extension for the Mac on Debian, to check it: clang, libc++ and lld of LLVM 14, the
# declarations of tests/macos and stubs of the libraries. What comes out is never run.
# tests/macos/cross_build makes the stubs and names their directory in KFP_APPLE_STUBS.
set(CMAKE_SYSTEM_NAME Darwin)
set(CMAKE_SYSTEM_PROCESSOR arm64)
set(CMAKE_OSX_SYSROOT "")
set(CMAKE_OSX_DEPLOYMENT_TARGET "")
set(CMAKE_TRY_COMPILE_TARGET_TYPE STATIC_LIBRARY)
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES KFP_APPLE_STUBS)

set(llvm /usr/lib/llvm-14)
set(CMAKE_AR ${llvm}/bin/llvm-ar)
set(CMAKE_RANLIB ${llvm}/bin/llvm-ranlib)
set(CMAKE_INSTALL_NAME_TOOL ${llvm}/bin/llvm-install-name-tool)

cmake_path(GET CMAKE_CURRENT_LIST_DIR PARENT_PATH root)
# The C library's headers stand in for the platform's. They are told of a 64-bit machine that they
# know, and that no inline functions are wanted.
string(JOIN " " flags
  -fblocks -nostdinc++
  -isystem ${llvm}/include/c++/v1
  "-isystem \"${root}/tests/macos/apple/include\""
  "-isystem \"${root}/tests/macos/frameworks\""
  "-isystem \"${KFP_APPLE_STUBS}/include\""
  -isystem /usr/include/x86_64-linux-gnu
  -isystem /usr/include
  -U__nonnull -D_GNU_SOURCE -D__NO_CTYPE -D__x86_64__
  -include absent.h -Wno-unknown-warning-option)
foreach(language CXX OBJCXX)
  set(CMAKE_${language}_COMPILER ${llvm}/bin/clang++)
  set(CMAKE_${language}_COMPILER_TARGET arm64-apple-macosx13.0)
  set(CMAKE_${language}_FLAGS_INIT "${flags}")
endforeach()
string(JOIN " " CMAKE_EXE_LINKER_FLAGS_INIT
  -fuse-ld=lld -nostdlib -Wl,-undefined,dynamic_lookup "-Wl,-syslibroot,\"${KFP_APPLE_STUBS}\"" -lSystem)

set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
