# What every target of the project is compiled with.

set(CMAKE_C_STANDARD 11)
set(CMAKE_CXX_STANDARD 20)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_EXPORT_COMPILE_COMMANDS ON)

if(NOT CMAKE_BUILD_TYPE AND NOT CMAKE_CONFIGURATION_TYPES)
    set(CMAKE_BUILD_TYPE RelWithDebInfo CACHE STRING "Build type" FORCE)
endif()

add_library(greirige_options INTERFACE)
target_compile_options(greirige_options INTERFACE
    -Wall -Wextra -Wpedantic -Wconversion -Wshadow -Werror)
# With -O3, g++ 12 sees overlapping copies in std::string's operator+ (GCC bug 105651).
if(CMAKE_CXX_COMPILER_ID STREQUAL GNU AND CMAKE_CXX_COMPILER_VERSION VERSION_LESS 13)
    target_compile_options(greirige_options INTERFACE
        $<$<AND:$<COMPILE_LANGUAGE:CXX>,$<CONFIG:Release>>:-Wno-restrict>)
endif()

if(GREIRIGE_SANITIZE)
    target_compile_options(greirige_options INTERFACE
        -fsanitize=${GREIRIGE_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer)
    target_link_options(greirige_options INTERFACE -fsanitize=${GREIRIGE_SANITIZE})
endif()

# Every source tells the fuzzers where it has been.
if(GREIRIGE_FUZZ)
    target_compile_options(greirige_options INTERFACE -fsanitize=fuzzer-no-link)
endif()
