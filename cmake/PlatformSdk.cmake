# The daemon alone, against an installed platform SDK: PLATFORM_ROOT/include holds the headers,
# PLATFORM_ROOT/lib the libraries, by the names an element's SDK gives them. zlog may be the system's own.
function(import_platform_library target library)
  find_library(${target}_LIBRARY NAMES ${library} PATHS "${PLATFORM_ROOT}"
               PATH_SUFFIXES lib ${CMAKE_INSTALL_LIBDIR} NO_DEFAULT_PATH)
  if(target STREQUAL zlog)
    find_library(${target}_LIBRARY NAMES ${library})
  endif()
  if(NOT ${target}_LIBRARY)
    message(FATAL_ERROR "${PLATFORM_ROOT} has no library ${library}")
  endif()
  add_library(platform::${target} INTERFACE IMPORTED GLOBAL)
  target_link_libraries(platform::${target} INTERFACE ${${target}_LIBRARY} platform::${target}_headers)
endfunction()

foreach(pair IN ITEMS confd:confd_lib.h qmmidware:qmmw.h qmconfd:qm_confd_interface.h
                      ip_spoofing_mgr_client:ip_spoofing_mgr_client.h limid:limid.h
                      fm:filter_manager.h zlog:zlog.h)
  string(REPLACE ":" ";" pair "${pair}")
  list(GET pair 0 name)
  list(GET pair 1 header)
  find_path(${name}_INCLUDE_DIR ${header} PATHS "${PLATFORM_ROOT}/include" NO_DEFAULT_PATH)
  if(name STREQUAL zlog)
    find_path(${name}_INCLUDE_DIR ${header})
  endif()
  if(NOT ${name}_INCLUDE_DIR)
    message(FATAL_ERROR "${PLATFORM_ROOT} has no header ${header}")
  endif()
  add_library(platform::${name}_headers INTERFACE IMPORTED GLOBAL)
  target_include_directories(platform::${name}_headers INTERFACE "${${name}_INCLUDE_DIR}")
  import_platform_library(${name} ${name})
endforeach()
