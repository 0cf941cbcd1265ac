# corvo_area(NAME USES <area>... LINKS <target>...)
#
# One object library per folder under src/. An area is compiled with the include roots of itself and of the
# areas in USES (and what those use), and of no other: including a header against the direction of dependency
# does not compile. Each root is a folder in the build tree that holds one link, so that headers are written
# as "foundation/json.h" everywhere.
function(corvo_area NAME)
  cmake_parse_arguments(ARG "" "" "USES;LINKS" ${ARGN})
  set(root "${CMAKE_BINARY_DIR}/areas/${NAME}")
  file(MAKE_DIRECTORY "${root}")
  file(CREATE_LINK "${CMAKE_CURRENT_SOURCE_DIR}" "${root}/${NAME}" SYMBOLIC)

  add_library(corvo_${NAME}_headers INTERFACE)
  target_include_directories(corvo_${NAME}_headers INTERFACE "${root}" "${PROJECT_SOURCE_DIR}/include")
  target_link_libraries(corvo_${NAME}_headers INTERFACE PkgConfig::JSONCPP Threads::Threads ${ARG_LINKS})
  foreach(used IN LISTS ARG_USES)
    target_link_libraries(corvo_${NAME}_headers INTERFACE corvo_${used}_headers)
  endforeach()

  file(GLOB sources CONFIGURE_DEPENDS "${CMAKE_CURRENT_SOURCE_DIR}/*.cpp")
  add_library(corvo_${NAME} OBJECT ${sources})
  target_link_libraries(corvo_${NAME} PUBLIC corvo_${NAME}_headers)
  if(TARGET corvo_common_headers)
    target_precompile_headers(corvo_${NAME} REUSE_FROM corvo_common_headers)
  endif()
endfunction()
