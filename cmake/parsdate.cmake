# The date parser: its grammar (misc/parsdate.y) is turned into C++ by bison
# at build time and compiled into the engine with the other sources.
find_package(BISON 3.0 REQUIRED)
file(MAKE_DIRECTORY ${CMAKE_BINARY_DIR}/generated)
BISON_TARGET(parsdate ${CMAKE_SOURCE_DIR}/misc/parsdate.y
  ${CMAKE_BINARY_DIR}/generated/parsdate.cpp
  COMPILE_FLAGS "-Wall")
target_sources(tarnmail_obj PRIVATE ${BISON_parsdate_OUTPUTS})
