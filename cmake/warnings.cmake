# Every warning is an error, in every target of this tree.
add_compile_options(-Wall -Wextra -Wshadow -Wconversion -Wformat=2 -Wundef -Werror
                    $<$<COMPILE_LANGUAGE:CXX>:-Wnon-virtual-dtor$<SEMICOLON>-Woverloaded-virtual>)
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND CMAKE_CXX_COMPILER_VERSION VERSION_LESS 13)
  # GCC 12 sees overlaps in std::string's own insert and operator+ that are not there.
  add_compile_options(-Wno-restrict)
endif()
if(CMAKE_SYSTEM_PROCESSOR MATCHES "^arm")
  # Notes on calls that GCC 7 changed, which is no matter between parts of one build.
  add_compile_options(-Wno-psabi)
endif()
