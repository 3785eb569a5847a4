# The header-only libraries of the tools and the host programs: nlohmann's
# JSON and CLI11 (Debian's nlohmann-json3-dev and libcli11-dev). The engine
# uses neither.
#
# They are the same for every target. A cross build cannot search the host's
# /usr/include (its C library headers would shadow the target's), so it sees
# just their two folders, through links of its own.
if(CMAKE_CROSSCOMPILING)
  set(host_headers ${CMAKE_BINARY_DIR}/host-headers)
  file(MAKE_DIRECTORY ${host_headers})
  foreach(dir nlohmann CLI)
    file(CREATE_LINK /usr/include/${dir} ${host_headers}/${dir} SYMBOLIC)
  endforeach()
  add_library(nlohmann_json::nlohmann_json INTERFACE IMPORTED GLOBAL)
  add_library(CLI11::CLI11 INTERFACE IMPORTED GLOBAL)
  set_target_properties(nlohmann_json::nlohmann_json CLI11::CLI11
    PROPERTIES INTERFACE_INCLUDE_DIRECTORIES ${host_headers})
else()
  find_package(nlohmann_json 3 REQUIRED)
  find_package(CLI11 REQUIRED)
endif()
