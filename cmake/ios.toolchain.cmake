# Cross toolchain for the iOS library: arm64, iOS 15.0 or later.
#
# On a Mac it uses Xcode's compilers and iPhoneOS SDK (found through xcrun), or the SDK named by
# CORVELSTOW_IOS_SDK. On Linux it uses Debian's clang-16 and lld-16 (ld64.lld) against the SDK
# named by CORVELSTOW_IOS_SDK (an environment variable or a cache variable):
#
#   CORVELSTOW_IOS_SDK=/path/to/iPhoneOS15.6.sdk cmake --preset ios
#
# Header-only dependencies (nlohmann/json) are taken from the host through a folder that exposes
# nothing else (cmake/ios/), so the host's own headers never reach the iOS include path.

set(CMAKE_SYSTEM_NAME iOS)
set(CMAKE_OSX_ARCHITECTURES arm64 CACHE STRING "Architectures of the iOS library")
set(CMAKE_OSX_DEPLOYMENT_TARGET 15.0 CACHE STRING "Oldest iOS the library runs on")

# try_compile projects read this file again without the cache: hand the SDK through.
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES CORVELSTOW_IOS_SDK)
if(NOT "$ENV{CORVELSTOW_IOS_SDK}" STREQUAL "")
  set(CORVELSTOW_IOS_SDK "$ENV{CORVELSTOW_IOS_SDK}" CACHE PATH "The iPhoneOS SDK" FORCE)
endif()

if(CORVELSTOW_IOS_SDK)
  if(NOT EXISTS "${CORVELSTOW_IOS_SDK}/SDKSettings.json"
     OR NOT EXISTS "${CORVELSTOW_IOS_SDK}/System/Library/Frameworks/Foundation.framework")
    message(FATAL_ERROR "CORVELSTOW_IOS_SDK=${CORVELSTOW_IOS_SDK} is not an iPhoneOS SDK.")
  endif()
  set(CMAKE_OSX_SYSROOT "${CORVELSTOW_IOS_SDK}" CACHE PATH "The iPhoneOS SDK" FORCE)
elseif(CMAKE_HOST_APPLE)
  set(CMAKE_OSX_SYSROOT iphoneos CACHE STRING "The iPhoneOS SDK")
else()
  message(FATAL_ERROR
    "The iOS build needs an iPhoneOS SDK: set CORVELSTOW_IOS_SDK to its folder "
    "(on Linux, CORVELSTOW_IOS_SDK=$(sh scripts/ios-sdk) cmake --preset ios; see the README).")
endif()

if(NOT CMAKE_HOST_APPLE)
  # Debian's LLVM 16: one clang for every language, ld64.lld for the Mach-O link, and the LLVM
  # archiver so that static archives carry a symbol table ld64.lld reads.
  find_program(CORVELSTOW_CLANG clang-16 REQUIRED)
  find_program(CORVELSTOW_CLANGXX clang++-16 REQUIRED)
  find_program(CORVELSTOW_LD64_LLD ld64.lld-16 REQUIRED)
  find_program(CMAKE_AR llvm-ar-16 REQUIRED)
  find_program(CMAKE_RANLIB llvm-ranlib-16 REQUIRED)
  find_program(CMAKE_INSTALL_NAME_TOOL llvm-install-name-tool-16 REQUIRED)
  find_program(CMAKE_NM llvm-nm-16 REQUIRED)
  find_program(CMAKE_STRIP llvm-strip-16 REQUIRED)
  set(CMAKE_C_COMPILER "${CORVELSTOW_CLANG}")
  set(CMAKE_OBJC_COMPILER "${CORVELSTOW_CLANG}")
  set(CMAKE_CXX_COMPILER "${CORVELSTOW_CLANGXX}")
  set(CMAKE_OBJCXX_COMPILER "${CORVELSTOW_CLANGXX}")
  foreach(lang IN ITEMS C CXX OBJC OBJCXX)
    set(CMAKE_${lang}_COMPILER_TARGET "arm64-apple-ios${CMAKE_OSX_DEPLOYMENT_TARGET}")
  endforeach()
  # -fuse-ld=lld tells clang the linker is lld, so that it passes the platform and SDK versions
  # in the form lld reads (-platform_version); --ld-path names lld-16's ld64.lld.
  set(_corvelstow_linker "-fuse-ld=lld --ld-path=${CORVELSTOW_LD64_LLD}")
endif()

# Every symbol the library uses must resolve at link time against the SDK (ld64.lld's default,
# stated here so that Xcode's linker does the same).
foreach(kind IN ITEMS EXE SHARED MODULE)
  set(CMAKE_${kind}_LINKER_FLAGS_INIT "${_corvelstow_linker} -Wl,-undefined,error")
endforeach()

# The library's own install name: @rpath/libcorvelstow.dylib, not a path of the build machine.
set(CMAKE_INSTALL_NAME_DIR "@rpath")
set(CMAKE_BUILD_WITH_INSTALL_NAME_DIR ON)

# Find libraries, headers and packages in the SDK only (CMake adds the SDK to the root path);
# programs on the host.
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

set(nlohmann_json_DIR "${CMAKE_CURRENT_LIST_DIR}/ios/nlohmann_json" CACHE PATH
    "nlohmann/json for the iOS build, seen through a folder that exposes only nlohmann/")
