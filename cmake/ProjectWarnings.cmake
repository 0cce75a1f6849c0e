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
