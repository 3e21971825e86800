# Compiler settings shared by every target, and one function per kind of target.

add_library(quelm_settings INTERFACE)
target_include_directories(quelm_settings INTERFACE "${PROJECT_SOURCE_DIR}/src" "${PROJECT_SOURCE_DIR}/platform")
target_compile_options(quelm_settings INTERFACE
  -Wall -Wextra -Wpedantic -Werror -Wshadow -Wnon-virtual-dtor -Woverloaded-virtual -Wcast-align -Wimplicit-fallthrough)
target_compile_definitions(quelm_settings INTERFACE ASIO_STANDALONE ASIO_NO_DEPRECATED ASIO_DISABLE_THREADS)
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
  # g++ 12 reports reads that its own optimiser invented in standard containers.
  target_compile_options(quelm_settings INTERFACE -Wno-maybe-uninitialized -Wno-restrict -Wno-stringop-overflow -Wno-array-bounds -Wno-stringop-overread)
endif()
if(QUELM_SANITIZE)
  # The check of virtual calls opens a pipe of its own, so that it cannot be used where a test runs out of descriptors.
  target_compile_options(quelm_settings INTERFACE -fsanitize=address,undefined -fno-sanitize=vptr -fno-sanitize-recover=all
    -fno-omit-frame-pointer)
  target_link_options(quelm_settings INTERFACE -fsanitize=address,undefined)
endif()
if(QUELM_FUZZ)
  target_compile_options(quelm_settings INTERFACE -fsanitize=fuzzer-no-link)
endif()

# quelm_room(target folders libraries...): one static library from the .cpp files that stand directly in the folders.
function(quelm_room target folders)
  set(sources)
  foreach(folder IN LISTS folders)
    file(GLOB found CONFIGURE_DEPENDS "${PROJECT_SOURCE_DIR}/${folder}/*.cpp")
    list(APPEND sources ${found})
  endforeach()
  if(sources)
    add_library(${target} STATIC ${sources})
    target_link_libraries(${target} PUBLIC quelm_settings ${ARGN})
  else()
    add_library(${target} INTERFACE)
    target_link_libraries(${target} INTERFACE quelm_settings ${ARGN})
  endif()
endfunction()

# quelm_program(target folder libraries...): one executable from a folder, if it holds sources.
function(quelm_program target folder)
  file(GLOB sources CONFIGURE_DEPENDS "${PROJECT_SOURCE_DIR}/${folder}/*.cpp")
  if(sources)
    add_executable(${target} ${sources})
    target_link_libraries(${target} PRIVATE quelm_settings ${ARGN})
  endif()
endfunction()
