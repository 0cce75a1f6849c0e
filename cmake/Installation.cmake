# Where things are installed. With the prefix /usr, which packages and images have, the files that daemon and broker know
# by their full names go there. Below any other prefix go copies of them, so that nothing else is written.

include(GNUInstallDirs)

if(CMAKE_INSTALL_PREFIX STREQUAL "/usr")
  set(INSTALL_ROOT /)
  install(
    CODE [[
      if(NOT CMAKE_INSTALL_PREFIX STREQUAL "/usr")
        message(FATAL_ERROR "This build is for the prefix /usr, and DESTDIR. Configure another one for ${CMAKE_INSTALL_PREFIX}.")
      endif()]]
    ALL_COMPONENTS)
else()
  set(INSTALL_ROOT "")
endif()

# install_document(FILE COMPONENT FOLDER [NAME]): installs a manual page or another document, where Debian wants it so as
# NAME.gz.
function(install_document file component folder)
  cmake_path(GET file FILENAME name)
  if(ARGC GREATER 3)
    set(name ${ARGV3})
  endif()
  install(FILES ${file} DESTINATION ${folder} RENAME ${name} COMPONENT ${component})
  if(INSTALL_ROOT)
    install(CODE "execute_process(
      COMMAND gzip --best --no-name --force \"\$ENV{DESTDIR}\${CMAKE_INSTALL_PREFIX}/${folder}/${name}\"
      COMMAND_ERROR_IS_FATAL ANY)" COMPONENT ${component})
  endif()
endfunction()
