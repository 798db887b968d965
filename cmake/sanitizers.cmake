# ZORV_SANITIZE names the sanitizers of the whole build; a finding ends the program.
if(ZORV_SANITIZE)
  add_compile_options(-fsanitize=${ZORV_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer)
  add_link_options(-fsanitize=${ZORV_SANITIZE})
  # GCC 12 warns of <regex> where the sanitizers' own code stands in between.
  add_compile_options("$<$<CXX_COMPILER_ID:GNU>:-Wno-maybe-uninitialized>")
endif()
