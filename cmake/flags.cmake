# Compiler settings that every target of the project shares.
set(CMAKE_CXX_STANDARD 20)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_C_STANDARD 11)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)
set(CMAKE_CXX_VISIBILITY_PRESET hidden)
set(CMAKE_VISIBILITY_INLINES_HIDDEN ON)

find_package(Threads REQUIRED)

add_library(kvl_flags INTERFACE)
target_compile_options(kvl_flags INTERFACE -Wall -Wextra -Wpedantic -Wconversion -Wshadow)
if(KVL_WERROR)
  target_compile_options(kvl_flags INTERFACE -Werror)
endif()
if(KVL_SANITIZE)
  add_compile_options(-fsanitize=${KVL_SANITIZE} -fno-sanitize-recover=all
                      -fno-omit-frame-pointer)
  add_link_options(-fsanitize=${KVL_SANITIZE})
endif()
if(KVL_BUILD_FUZZ)
  add_compile_options(-fsanitize=fuzzer-no-link)
endif()
