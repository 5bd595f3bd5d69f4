# Compiler settings for every target of the project.
set(CMAKE_CXX_STANDARD 20)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_C_STANDARD 17)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)
set(CMAKE_EXPORT_COMPILE_COMMANDS ON)
# Installed programs find the platform's libraries wherever the prefix is put.
set(CMAKE_INSTALL_RPATH "$ORIGIN/../${CMAKE_INSTALL_LIBDIR}")

if(NOT CMAKE_BUILD_TYPE)
  set(CMAKE_BUILD_TYPE RelWithDebInfo CACHE STRING "" FORCE)
endif()

# Assertions are part of the daemon's behaviour, so no build type defines NDEBUG.
foreach(lang IN ITEMS C CXX)
  set(CMAKE_${lang}_FLAGS_RELEASE "-O2")
  set(CMAKE_${lang}_FLAGS_RELWITHDEBINFO "-O2 -g1")
  set(CMAKE_${lang}_FLAGS_MINSIZEREL "-Os")
endforeach()

option(IP_SPOOFING_FUZZ "Build the libFuzzer targets (clang only)" OFF)
option(IP_SPOOFING_WERROR "Treat warnings as errors" ON)
set(IP_SPOOFING_SANITIZE "" CACHE STRING "Value for -fsanitize=, empty for none")
option(IP_SPOOFING_COVERAGE "Instrument for gcov" OFF)

add_compile_options(-Wall -Wextra -Wshadow $<$<COMPILE_LANGUAGE:CXX>:-Wnon-virtual-dtor>)
if(IP_SPOOFING_WERROR)
  add_compile_options(-Werror)
endif()
if(IP_SPOOFING_SANITIZE)
  # -O1 comes after the build type's level and wins: it finds as much in half the time of compiling.
  add_compile_options(-O1 -fsanitize=${IP_SPOOFING_SANITIZE} -fno-omit-frame-pointer -fno-sanitize-recover=all)
  add_link_options(-fsanitize=${IP_SPOOFING_SANITIZE})
endif()
if(IP_SPOOFING_FUZZ)
  add_compile_options(-fsanitize=fuzzer-no-link)  # libFuzzer follows the branches of the libraries, too
endif()
if(IP_SPOOFING_COVERAGE)
  add_compile_options(--coverage)
  add_link_options(--coverage)
endif()
find_program(CCACHE_PROGRAM ccache)
if(CCACHE_PROGRAM AND NOT CMAKE_CXX_COMPILER_LAUNCHER)
  set(CMAKE_C_COMPILER_LAUNCHER ${CCACHE_PROGRAM})
  set(CMAKE_CXX_COMPILER_LAUNCHER ${CCACHE_PROGRAM})
endif()
