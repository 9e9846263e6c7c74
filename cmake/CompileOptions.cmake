# Flags that every target of the tree is compiled with.

set(CMAKE_C_STANDARD 11)
set(CMAKE_CXX_STANDARD 20)
set(CMAKE_C_STANDARD_REQUIRED ON)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_C_EXTENSIONS OFF)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)
set(CMAKE_BUILD_RPATH_USE_ORIGIN ON)
# Installed programs find the library from where they lie, unless the system does it for them.
if(NOT CMAKE_INSTALL_PREFIX STREQUAL "/usr")
  file(RELATIVE_PATH libraries_from_programs
    ${CMAKE_INSTALL_FULL_BINDIR} ${CMAKE_INSTALL_FULL_LIBDIR})
  set(CMAKE_INSTALL_RPATH $ORIGIN/${libraries_from_programs})
endif()
set(CMAKE_RUNTIME_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR}/bin)
set(CMAKE_LIBRARY_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR}/lib)
set(CMAKE_ARCHIVE_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR}/lib)
set(CMAKE_C_FLAGS_RELEASE "-O2 -g")
set(CMAKE_CXX_FLAGS_RELEASE "-O2 -g")

add_compile_options(
  -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wformat=2 -Wundef -Wcast-qual -Werror
  -fstack-protector-strong
  # Which lock guards what (lock_annotations.h).
  $<$<CXX_COMPILER_ID:Clang>:-Wthread-safety>)
add_link_options(-Wl,-z,relro,-z,now -Wl,--as-needed)

if(TAVLEN_COVERAGE)
  # Counts are looked up by the sources' full names. Each branch is counted once, not once for each
  # place that it is inlined to.
  add_compile_options(--coverage -fprofile-update=atomic -O1 -fno-inline -Dalways_inline=noinline
    -DTAVLEN_COVERAGE)
  add_link_options(--coverage)
else()
  # Records show where they came from; the build machine's folders are nobody's business.
  add_compile_options(
    -ffile-prefix-map=${PROJECT_SOURCE_DIR}/= -ffile-prefix-map=${PROJECT_BINARY_DIR}=build)
endif()

if(TAVLEN_SANITIZE)
  add_compile_options(-fsanitize=${TAVLEN_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer)
  add_link_options(-fsanitize=${TAVLEN_SANITIZE})
else()
  # The sanitizers bring checks of their own, which fortified calls would bypass.
  add_compile_options(-U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=2)
endif()
if(TAVLEN_FUZZ)
  add_compile_options(-fsanitize=fuzzer-no-link)
endif()
