# Warnings are errors under both compilers; clang also checks the lock annotations.
add_library(ld_compiler_options INTERFACE)
target_compile_options(ld_compiler_options INTERFACE
  -Wall -Wextra -Wpedantic -Werror
  -Wshadow -Wnon-virtual-dtor -Wcast-qual -Wformat=2 -Wimplicit-fallthrough
  -Wconversion -Wsign-conversion -Wold-style-cast)
# The standard library checks its own preconditions (an empty optional read, an index past the
# end) and aborts, in every build: a root process stops rather than read what is not there.
target_compile_definitions(ld_compiler_options INTERFACE _GLIBCXX_ASSERTIONS)
if(CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
  target_compile_options(ld_compiler_options INTERFACE -Wthread-safety -Wthread-safety-beta)
endif()

set(LD_SANITIZER "" CACHE STRING "Sanitizers for the whole build: '', 'address,undefined' or 'thread'")
if(LD_SANITIZER)
  add_compile_options(-fsanitize=${LD_SANITIZER} -fno-omit-frame-pointer -fno-sanitize-recover=all)
  add_link_options(-fsanitize=${LD_SANITIZER})
endif()
