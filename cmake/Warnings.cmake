# The warnings that every target of the project is built with; each is an error.
add_library(keltop_warnings INTERFACE)
target_compile_options(keltop_warnings INTERFACE -Wall -Wextra -Wpedantic -Wconversion -Wshadow -Wnon-virtual-dtor
                                                 -Wold-style-cast -Werror)
