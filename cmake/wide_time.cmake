# 64-bit times and file offsets where the C library's default is 32 bits.
if(CMAKE_SIZEOF_VOID_P EQUAL 4)
  add_compile_definitions(_TIME_BITS=64 _FILE_OFFSET_BITS=64)
endif()
