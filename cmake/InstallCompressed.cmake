# install_compressed(FILE COMPONENT FOLDER [NAME]): installs the file as FOLDER/NAME.gz, where Debian wants it so.

add_custom_target(compressed ALL)

function(install_compressed file component folder)
  cmake_path(GET file FILENAME name)
  if(ARGC GREATER 3)
    set(name ${ARGV3})
  endif()
  set(output ${CMAKE_BINARY_DIR}/compressed/${component}/${name}.gz)
  add_custom_command(
    OUTPUT ${output}
    COMMAND ${CMAKE_COMMAND} -E make_directory ${CMAKE_BINARY_DIR}/compressed/${component}
    COMMAND gzip --best --no-name --stdout ${file} > ${output}
    DEPENDS ${file}
    VERBATIM)
  string(MAKE_C_IDENTIFIER compressed_${component}_${name} target)
  add_custom_target(${target} DEPENDS ${output})
  add_dependencies(compressed ${target})
  install(FILES ${output} DESTINATION ${folder} COMPONENT ${component})
endfunction()
