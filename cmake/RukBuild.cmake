# Flags that every target of the project shares.

find_package(Threads REQUIRED)

add_compile_definitions(_GNU_SOURCE)
add_compile_options(-Wall -Wextra -Wpointer-arith -Wno-unused-parameter)
if(RUK_WERROR)
  add_compile_options(-Werror)
endif()

if(RUK_32BIT)
  # SSE arithmetic: the same floating-point results as on 64 bit.
  add_compile_options(-m32 -msse2 -mfpmath=sse)
  add_link_options(-m32)
  add_compile_definitions(_FILE_OFFSET_BITS=64)
endif()

if(RUK_COVERAGE)
  # Each branch once: of a function that is put in line in many places every copy would count.
  add_compile_options(--coverage -fprofile-update=atomic -fno-inline -Dalways_inline=unused)
  # Children that end without exit() write their counts themselves; nothing else would bring the function in.
  add_link_options(--coverage -Wl,-u,__gcov_dump)
endif()

if(RUK_SANITIZE STREQUAL "address")
  # More optimisation costs compilation a third more time, and hides more than it finds.
  add_compile_options(-O1 -g1 -fsanitize=address,undefined -fno-sanitize-recover=undefined -fno-omit-frame-pointer)
  add_link_options(-fsanitize=address,undefined)
elseif(RUK_SANITIZE STREQUAL "thread")
  add_compile_options(-fsanitize=thread)
  add_link_options(-fsanitize=thread)
elseif(RUK_SANITIZE STREQUAL "fuzzer")
  # clang alone. The fuzzing programs themselves take the driver with its main() as well.
  add_compile_options(-fsanitize=fuzzer-no-link,address,undefined -fno-sanitize-recover=undefined
                      -fno-omit-frame-pointer)
  add_compile_definitions(_GLIBCXX_ASSERTIONS) # an element that is not there lies in memory that is
  add_link_options(-fsanitize=address,undefined)
elseif(NOT RUK_SANITIZE STREQUAL "")
  message(FATAL_ERROR "RUK_SANITIZE is empty, address, thread or fuzzer, not '${RUK_SANITIZE}'")
endif()

# The source revision, for the library's build string. Without a repository it has to be given.
if(NOT RUK_REVISION)
  execute_process(COMMAND git rev-parse --short=12 HEAD WORKING_DIRECTORY ${CMAKE_SOURCE_DIR}
                  OUTPUT_VARIABLE RUK_REVISION OUTPUT_STRIP_TRAILING_WHITESPACE ERROR_QUIET)
endif()
if(NOT RUK_REVISION)
  set(RUK_REVISION unknown)
endif()
