# c2ms_warnings: what our own sources must compile clean with.
# c2ms_build: what every object of one build must share (sanitizers, exceptions, large files).
find_package(Threads REQUIRED)

add_library(c2ms_warnings INTERFACE)
target_compile_options(c2ms_warnings INTERFACE -Wall -Wextra -Wshadow)
if(C2MS_WERROR)
  target_compile_options(c2ms_warnings INTERFACE -Werror)
endif()
if(CMAKE_CXX_COMPILER_ID MATCHES "Clang")
  target_compile_options(c2ms_warnings INTERFACE -Wthread-safety)
endif()

add_library(c2ms_build INTERFACE)
target_compile_definitions(c2ms_build INTERFACE _GNU_SOURCE _FILE_OFFSET_BITS=64)
if(CMAKE_SIZEOF_VOID_P EQUAL 4)
  target_compile_definitions(c2ms_build INTERFACE _TIME_BITS=64)
endif()
target_compile_options(c2ms_build INTERFACE $<$<COMPILE_LANGUAGE:CXX>:-fno-rtti>)
# A unique symbol (an inline constant whose address is taken) can't be made local in libc2ms.a.
target_compile_options(c2ms_build INTERFACE
  $<$<AND:$<COMPILE_LANGUAGE:CXX>,$<CXX_COMPILER_ID:GNU>>:-fno-gnu-unique>)
target_link_libraries(c2ms_build INTERFACE Threads::Threads)
if(C2MS_CHECKS OR CMAKE_BUILD_TYPE STREQUAL "Debug")
  target_compile_definitions(c2ms_build INTERFACE C2MS_CHECKS=1)
endif()
if(C2MS_SANITIZE STREQUAL "address")
  target_compile_options(c2ms_build INTERFACE -fsanitize=address,undefined -fno-sanitize-recover=all -fno-omit-frame-pointer)
  target_link_options(c2ms_build INTERFACE -fsanitize=address,undefined)
elseif(C2MS_SANITIZE STREQUAL "thread")
  target_compile_options(c2ms_build INTERFACE -fsanitize=thread -fno-omit-frame-pointer)
  target_link_options(c2ms_build INTERFACE -fsanitize=thread)
endif()
if(C2MS_SANITIZE)
  # Which line was at fault matters here, speed less: a lighter optimiser halves the build.
  set(CMAKE_C_FLAGS_RELWITHDEBINFO "-O1 -g1 -DNDEBUG")
  set(CMAKE_CXX_FLAGS_RELWITHDEBINFO "-O1 -g1 -DNDEBUG")
endif()

# Fuzzers see the branches of every object, the C ones of the LZMA SDK included.
if(C2MS_FUZZ)
  if(NOT CMAKE_CXX_COMPILER_ID MATCHES "Clang")
    message(FATAL_ERROR "C2MS_FUZZ needs clang: use the preset fuzz")
  endif()
  target_compile_options(c2ms_build INTERFACE -fsanitize=fuzzer-no-link)
  target_link_options(c2ms_build INTERFACE -fsanitize=fuzzer-no-link)
endif()

# Objects count the lines and branches that run (clang).
if(C2MS_COVERAGE)
  target_compile_options(c2ms_build INTERFACE -fprofile-instr-generate -fcoverage-mapping)
  target_link_options(c2ms_build INTERFACE -fprofile-instr-generate)
endif()
