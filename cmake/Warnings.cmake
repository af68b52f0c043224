set(ZEL_WARNINGS -Wall -Wextra -Wconversion -Wshadow -Werror)
# gcc 12 sees overlapping copies in "text" + std::string once it optimises; there are none.
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND CMAKE_CXX_COMPILER_VERSION VERSION_LESS 13)
  list(APPEND ZEL_WARNINGS -Wno-restrict)
endif()
