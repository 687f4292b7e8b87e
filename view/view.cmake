# The viewer's page, styles and scripts stay source files here; the build
# embeds them in the library as a generated header (see embed.cmake).
set(LAYTRAN_VIEW_DIR ${CMAKE_CURRENT_LIST_DIR})
set(LAYTRAN_VIEW_ASSETS_H ${CMAKE_CURRENT_BINARY_DIR}/generated/view/view_assets.h)
add_custom_command(
  OUTPUT ${LAYTRAN_VIEW_ASSETS_H}
  COMMAND ${CMAKE_COMMAND} -DSOURCE_DIR=${LAYTRAN_VIEW_DIR} -DOUTPUT=${LAYTRAN_VIEW_ASSETS_H}
          -P ${LAYTRAN_VIEW_DIR}/embed.cmake
  DEPENDS ${LAYTRAN_VIEW_DIR}/embed.cmake ${LAYTRAN_VIEW_DIR}/viewer.html
          ${LAYTRAN_VIEW_DIR}/viewer.css ${LAYTRAN_VIEW_DIR}/decode.js ${LAYTRAN_VIEW_DIR}/viewer.js
  COMMENT "Embedding the layer viewer's page and scripts"
  VERBATIM)
target_sources(laytran_lib PRIVATE ${LAYTRAN_VIEW_ASSETS_H})
target_include_directories(laytran_lib PRIVATE ${CMAKE_CURRENT_BINARY_DIR}/generated)
