# ZORV_SANITIZE names the sanitizers of the whole build; a finding ends the program.
if(ZORV_SANITIZE)
  add_compile_options(-fsanitize=${ZORV_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer)
  add_link_options(-fsanitize=${ZORV_SANITIZE})
  # GCC 12 warns of <regex> where the sanitizers' own code stands in between.
  add_compile_options("$<$<CXX_COMPILER_ID:GNU>:-Wno-maybe-uninitialized>")
  # All of CLI11 is in its headers: optimised in each file, it takes half of the build.
  find_package(CLI11 REQUIRED)
  set_property(TARGET CLI11::CLI11 APPEND PROPERTY INTERFACE_COMPILE_OPTIONS -O0)
endif()
