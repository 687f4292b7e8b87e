# find_package(laytran) gives laytran::laytran: the shared library, or the
# static one when laytran_USE_STATIC_LIBS is set. Both are there as
# laytran::laytran_shared and laytran::laytran_static.
include(${CMAKE_CURRENT_LIST_DIR}/laytranTargets.cmake)
if(NOT TARGET laytran::laytran)
  add_library(laytran::laytran INTERFACE IMPORTED)
  if(laytran_USE_STATIC_LIBS)
    set_target_properties(laytran::laytran PROPERTIES INTERFACE_LINK_LIBRARIES laytran::laytran_static)
  else()
    set_target_properties(laytran::laytran PROPERTIES INTERFACE_LINK_LIBRARIES laytran::laytran_shared)
  endif()
endif()
