# Everything comes from Debian's packages; script/bootstrap installs them.

find_package(Threads REQUIRED)
find_package(PkgConfig REQUIRED)
find_package(SQLiteCpp REQUIRED)
find_package(leveldb REQUIRED)
find_package(jsoncpp REQUIRED)
find_package(spdlog REQUIRED)
pkg_check_modules(mosquitto REQUIRED IMPORTED_TARGET libmosquitto)
pkg_check_modules(sqlite3 REQUIRED IMPORTED_TARGET sqlite3)

# Their headers are not held to the project's warnings.
function(project_library name)
  add_library(${name} STATIC ${ARGN})
  target_link_libraries(${name} PRIVATE project_warnings PUBLIC project_options)
endfunction()
