# CLI11 and nlohmann/json, the header-only libraries of kovdsk and its tests,
# from Debian's libcli11-dev and nlohmann-json3-dev. A native build takes
# their CMake packages. A cross build cannot use those (they would put the
# host's /usr/include on the target's path); it links just the two headers'
# own folders into the build tree instead, which is safe since the headers
# are the same for every target.
if(NOT CMAKE_CROSSCOMPILING)
  find_package(CLI11 CONFIG QUIET)
  find_package(nlohmann_json CONFIG QUIET)
else()
  set(_hdr ${CMAKE_BINARY_DIR}/header-only)
  foreach(_dep "CLI11::CLI11;CLI/CLI.hpp;CLI" "nlohmann_json::nlohmann_json;nlohmann/json.hpp;nlohmann")
    list(GET _dep 0 _target)
    list(GET _dep 1 _header)
    list(GET _dep 2 _folder)
    if(EXISTS /usr/include/${_header} AND NOT TARGET ${_target})
      file(MAKE_DIRECTORY ${_hdr})
      file(CREATE_LINK /usr/include/${_folder} ${_hdr}/${_folder} SYMBOLIC)
      add_library(${_target} INTERFACE IMPORTED)
      set_target_properties(${_target} PROPERTIES INTERFACE_INCLUDE_DIRECTORIES ${_hdr})
    endif()
  endforeach()
endif()
