# Every warning is an error, in every target of this tree.
add_compile_options(-Wall -Wextra -Wshadow -Wconversion -Wformat=2 -Wnon-virtual-dtor
                    -Woverloaded-virtual -Wundef -Werror)
