# The warnings every target is built with, as one INTERFACE target; all of them are errors unless a packager
# says otherwise.

option(PROPERTYSERVICE_WERROR "Treat warnings as errors" ON)

add_library(project_warnings INTERFACE)
target_compile_options(
  project_warnings
  INTERFACE -Wall
            -Wextra
            -Wpedantic
            -Wshadow
            -Wconversion
            -Wnon-virtual-dtor
            -Wold-style-cast
            -Wsuggest-override
            $<$<BOOL:${PROPERTYSERVICE_WERROR}>:-Werror>)

# GCC 12 sees overflows in inlined std::string operations that are not there (its bugs 105329 and 105651).
if(CMAKE_CXX_COMPILER_ID STREQUAL GNU AND CMAKE_CXX_COMPILER_VERSION VERSION_LESS 13)
  target_compile_options(project_warnings INTERFACE -Wno-array-bounds -Wno-restrict -Wno-stringop-overflow)
endif()
