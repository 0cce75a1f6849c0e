# Language level, sanitizers and coverage, as one INTERFACE target that every target of the project links.

add_library(project_options INTERFACE)
target_compile_features(project_options INTERFACE cxx_std_20)

# The log names a source file relative to src/, and no build path ends up in a binary.
target_compile_options(project_options INTERFACE -fdebug-prefix-map=${CMAKE_SOURCE_DIR}/=
                                                 -fmacro-prefix-map=${CMAKE_SOURCE_DIR}/src/=)
target_include_directories(project_options INTERFACE ${CMAKE_SOURCE_DIR}/src ${CMAKE_SOURCE_DIR}/src/platform)

set(PROPERTYSERVICE_SANITIZE "" CACHE STRING "Sanitizers to build with, as -fsanitize= takes them")
if(PROPERTYSERVICE_SANITIZE)
  # LevelDB is built without run-time type information, which the vptr check would need.
  set(sanitizer_flags -fsanitize=${PROPERTYSERVICE_SANITIZE} -fno-sanitize=vptr -fno-sanitize-recover=all
                      -fno-omit-frame-pointer)
  target_compile_options(project_options INTERFACE ${sanitizer_flags})
  target_link_options(project_options INTERFACE ${sanitizer_flags})
endif()

option(PROPERTYSERVICE_COVERAGE "Instrument for gcov" OFF)
if(PROPERTYSERVICE_COVERAGE)
  target_compile_options(project_options INTERFACE --coverage)
  target_link_options(project_options INTERFACE --coverage)
endif()
