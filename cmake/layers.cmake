# Each folder is included by its own name ("adif/frame.h"), yet a target sees only the folders that
# it links: the include root of a layer holds one link, to that layer's folder.
function(c2ms_layer target folder)
  set(root ${CMAKE_BINARY_DIR}/layers/${folder})
  get_filename_component(above ${root}/${folder} DIRECTORY)
  file(MAKE_DIRECTORY ${above})
  file(CREATE_LINK ${CMAKE_SOURCE_DIR}/${folder} ${root}/${folder} SYMBOLIC)
  target_include_directories(${target} PUBLIC ${root})
  target_link_libraries(${target} PRIVATE c2ms_warnings)
  target_link_libraries(${target} PUBLIC c2ms_build)
endfunction()
