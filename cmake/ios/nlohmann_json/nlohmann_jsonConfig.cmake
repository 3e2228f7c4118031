# nlohmann/json for cross builds: the host's header-only package, seen through a folder of the
# build tree that holds only a link to nlohmann/. Adding the host's include folder itself would
# put every other host header (the C library's among them) on the target's include path.
# The version file beside this one has found CORVELSTOW_JSON_INCLUDE_DIR.

if(NOT TARGET nlohmann_json::nlohmann_json)
  set(_corvelstow_json_stage "${CMAKE_BINARY_DIR}/cross-include")
  file(MAKE_DIRECTORY "${_corvelstow_json_stage}")
  file(CREATE_LINK "${CORVELSTOW_JSON_INCLUDE_DIR}/nlohmann" "${_corvelstow_json_stage}/nlohmann"
       SYMBOLIC)
  add_library(nlohmann_json::nlohmann_json INTERFACE IMPORTED)
  set_target_properties(nlohmann_json::nlohmann_json PROPERTIES
    INTERFACE_INCLUDE_DIRECTORIES "${_corvelstow_json_stage}")
  unset(_corvelstow_json_stage)
endif()
set(nlohmann_json_FOUND TRUE)
