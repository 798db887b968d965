# Every warning is an error, in every target of this tree.
add_compile_options(-Wall -Wextra -Wshadow -Wconversion -Wformat=2 -Wnon-virtual-dtor
                    -Woverloaded-virtual -Wundef -Werror)
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND CMAKE_CXX_COMPILER_VERSION VERSION_LESS 13)
  # GCC 12 sees overlaps in std::string's own insert and operator+ that are not there.
  add_compile_options(-Wno-restrict)
endif()
