# add_platform_library(<name> SOURCES ... [PUBLIC ...] [LIBS ...] HEADERS ...): one library of the platform SDK.
#
# Shared, so that a program built elsewhere links it by its name alone: the library's own dependencies (LIBS) are in its
# DT_NEEDED list, static ones are inside and hidden, and RUNPATH finds its neighbours wherever the SDK is put.
# PUBLIC names contract libraries that programs link beside it. HEADERS are the contract headers to install.
function(add_platform_library name)
  cmake_parse_arguments(ARG "" "" "SOURCES;PUBLIC;LIBS;HEADERS" ${ARGN})
  add_library(${name} SHARED ${ARG_SOURCES})
  add_library(platform::${name} ALIAS ${name})
  target_link_libraries(${name} PUBLIC ${name}_headers ${ARG_PUBLIC} PRIVATE ${ARG_LIBS})
  target_link_options(${name} PRIVATE "LINKER:--exclude-libs,ALL")
  if(NOT IP_SPOOFING_SANITIZE)  # some sanitizers' symbols come from the program
    target_link_options(${name} PRIVATE "LINKER:-z,defs")
  endif()
  set_target_properties(${name} PROPERTIES INSTALL_RPATH "$ORIGIN")
  install(TARGETS ${name} LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
  install(FILES ${ARG_HEADERS} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
endfunction()
