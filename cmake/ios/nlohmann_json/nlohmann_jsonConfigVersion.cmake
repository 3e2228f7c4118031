# The version of the host's nlohmann/json headers, read from the headers themselves.
# Cross builds find header-only packages here (see nlohmann_jsonConfig.cmake beside this file).

find_path(CORVELSTOW_JSON_INCLUDE_DIR nlohmann/json.hpp
  PATHS /usr/include /usr/local/include /opt/homebrew/include
  DOC "The host folder holding nlohmann/json.hpp"
  NO_DEFAULT_PATH NO_CMAKE_FIND_ROOT_PATH)

set(PACKAGE_VERSION "")
set(PACKAGE_VERSION_COMPATIBLE FALSE)
set(PACKAGE_VERSION_EXACT FALSE)
if(CORVELSTOW_JSON_INCLUDE_DIR)
  # 3.11 keeps the version in abi_macros.hpp, earlier releases in json.hpp.
  foreach(header IN ITEMS detail/abi_macros.hpp json.hpp)
    set(file "${CORVELSTOW_JSON_INCLUDE_DIR}/nlohmann/${header}")
    if(PACKAGE_VERSION OR NOT EXISTS "${file}")
      continue()
    endif()
    file(STRINGS "${file}" lines REGEX "^#define NLOHMANN_JSON_VERSION_(MAJOR|MINOR|PATCH) ")
    set(parts "")
    foreach(part IN ITEMS MAJOR MINOR PATCH)
      string(REGEX MATCH "VERSION_${part} +([0-9]+)" found "${lines}")
      list(APPEND parts "${CMAKE_MATCH_1}")
    endforeach()
    if(parts MATCHES "^[0-9]+;[0-9]+;[0-9]+$")
      string(REPLACE ";" "." PACKAGE_VERSION "${parts}")
    endif()
  endforeach()
endif()

if(PACKAGE_VERSION)
  # Compatible within the same major version, as the package's own version file says.
  string(REGEX REPLACE "\\..*" "" major "${PACKAGE_VERSION}")
  if(major STREQUAL PACKAGE_FIND_VERSION_MAJOR
     AND NOT PACKAGE_VERSION VERSION_LESS PACKAGE_FIND_VERSION)
    set(PACKAGE_VERSION_COMPATIBLE TRUE)
  endif()
  if(PACKAGE_VERSION VERSION_EQUAL PACKAGE_FIND_VERSION)
    set(PACKAGE_VERSION_EXACT TRUE)
  endif()
else()
  set(PACKAGE_VERSION "unknown")
  set(PACKAGE_VERSION_UNSUITABLE TRUE)
endif()
