# cJSON comes from the system on a development machine and on a router alike.
find_package(PkgConfig REQUIRED)
pkg_check_modules(CJSON REQUIRED IMPORTED_TARGET libcjson)

if(CELMUX_TESTS)
    find_package(GTest REQUIRED)
endif()
