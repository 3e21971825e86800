# Compiler settings shared by every target, and one function per kind of target.

add_library(quelm_settings INTERFACE)
target_include_directories(quelm_settings INTERFACE "${PROJECT_SOURCE_DIR}/src" "${PROJECT_SOURCE_DIR}/platform")
target_compile_options(quelm_settings INTERFACE
  -Wall -Wextra -Wpedantic -Werror -Wshadow -Wnon-virtual-dtor -Woverloaded-virtual -Wcast-align -Wimplicit-fallthrough)
target_compile_definitions(quelm_settings INTERFACE ASIO_STANDALONE ASIO_NO_DEPRECATED)
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
  # g++ 12 reports reads that its own optimiser invented in standard containers.
  target_compile_options(quelm_settings INTERFACE -Wno-maybe-uninitialized -Wno-restrict -Wno-stringop-overflow -Wno-array-bounds -Wno-stringop-overread)
endif()
if(CMAKE_UNITY_BUILD)
  # What is a file's own elsewhere is seen by the files compiled behind it, and in a file that is included.
  target_compile_options(quelm_settings INTERFACE -Wno-shadow)
  if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    target_compile_options(quelm_settings INTERFACE -Wno-subobject-linkage)
  endif()
endif()
if(QUELM_SANITIZE)
  # The check of virtual calls opens a pipe of its own, so that it cannot be used where a test runs out of descriptors.
  target_compile_options(quelm_settings INTERFACE -fsanitize=address,undefined -fno-sanitize=vptr -fno-sanitize-recover=all
    -fno-omit-frame-pointer)
  target_link_options(quelm_settings INTERFACE -fsanitize=address,undefined)
endif()
if(QUELM_SANITIZE_THREAD)
  target_compile_options(quelm_settings INTERFACE -fsanitize=thread -fno-omit-frame-pointer)
  target_link_options(quelm_settings INTERFACE -fsanitize=thread)
endif()
if(QUELM_FUZZ)
  target_compile_options(quelm_settings INTERFACE -fsanitize=fuzzer-no-link)
endif()

# The rooms and their doors, for scripts/check-doors: which folders a room has, whose doors it may go through, in which
# rooms it may look at everything, and which of its own headers are its door.
file(WRITE "${PROJECT_BINARY_DIR}/doors.txt" "")

function(quelm_note_doors target folders)
  list(TRANSFORM ARGN REPLACE "^(SEES|INSIDE|DOOR)$" "\n\\1" OUTPUT_VARIABLE words)
  string(REPLACE ";" "\t" words "${words}")
  string(REPLACE "\t\n" "\n" words "${words}")
  string(REPLACE ";" "\t" folders "${folders}")
  file(APPEND "${PROJECT_BINARY_DIR}/doors.txt" "ROOM\t${target}\nFOLDERS\t${folders}${words}\n")
endfunction()

function(quelm_sources result folders)
  set(sources)
  foreach(folder IN LISTS folders)
    file(GLOB found CONFIGURE_DEPENDS "${PROJECT_SOURCE_DIR}/${folder}/*.cpp" "${PROJECT_SOURCE_DIR}/${folder}/*.h")
    if(NOT found)
      message(FATAL_ERROR "There are no sources in ${folder}")
    endif()
    list(APPEND sources ${found})
  endforeach()
  set(${result} ${sources} PARENT_SCOPE)
endfunction()

# quelm_room(target folders [DOOR headers...] [SEES rooms...] [INSIDE rooms...] [USES libraries...]): one static library
# from what stands directly in the folders.
#   DOOR: the headers that other rooms may include, patterns allowed (default: all of them)
#   SEES: rooms whose doors it may go through; INSIDE: rooms of which it may include everything
#   USES: libraries from elsewhere
function(quelm_room target folders)
  cmake_parse_arguments(PARSE_ARGV 2 room "" "" "DOOR;SEES;INSIDE;USES")
  quelm_sources(sources "${folders}")
  quelm_note_doors(${target} "${folders}" DOOR ${room_DOOR} SEES ${room_SEES} INSIDE ${room_INSIDE})
  if(sources MATCHES "\\.cpp(;|$)")
    add_library(${target} STATIC ${sources})
    target_link_libraries(${target} PUBLIC quelm_settings ${room_SEES} ${room_INSIDE} ${room_USES})
  else()
    add_library(${target} INTERFACE)
    target_link_libraries(${target} INTERFACE quelm_settings ${room_SEES} ${room_INSIDE} ${room_USES})
  endif()
endfunction()

# quelm_program(target folder [SEES rooms...] [INSIDE rooms...] [USES libraries...]): one executable from a folder.
function(quelm_program target folder)
  cmake_parse_arguments(PARSE_ARGV 2 room "" "" "SEES;INSIDE;USES")
  quelm_sources(sources "${folder}")
  quelm_note_doors(${target} "${folder}" SEES ${room_SEES} INSIDE ${room_INSIDE})
  add_executable(${target} ${sources})
  target_link_libraries(${target} PRIVATE quelm_settings ${room_SEES} ${room_INSIDE} ${room_USES})
endfunction()

# quelm_units(target): gives a room the systemd units as texts (OPC/Main/Units.h), so that they stand once.
function(quelm_units target)
  foreach(each SERVICE=quelm-opc-server.service ACTIVATION=quelm-opc-server.socket OBJECT=quelm-opc-server-objects.socket)
    string(REPLACE "=" ";" each ${each})
    list(GET each 0 name)
    list(GET each 1 unit)
    set(unit "${PROJECT_SOURCE_DIR}/packaging/systemd/${unit}")
    set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS "${unit}")
    file(READ "${unit}" QUELM_${name}_UNIT)
  endforeach()
  configure_file(src/OPC/Main/Units.h.in "${PROJECT_BINARY_DIR}/made/OPC/Main/Units.h" @ONLY)
  target_include_directories(${target} PRIVATE "${PROJECT_BINARY_DIR}/made")
endfunction()

# quelm_page(target): gives the monitor its page (OPC/Monitor/Page.h), so that the program needs no files beside it.
function(quelm_page target)
  foreach(each html=page.html style=page.css script=page.js items=items.js icon=icon.svg)
    string(REPLACE "=" ";" each ${each})
    list(GET each 0 name)
    list(GET each 1 file)
    set(file "${PROJECT_SOURCE_DIR}/src/OPC/Monitor/page/${file}")
    set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS "${file}")
    file(READ "${file}" QUELM_PAGE_${name})
  endforeach()
  configure_file(src/OPC/Monitor/Page.h.in "${PROJECT_BINARY_DIR}/made/OPC/Monitor/Page.h" @ONLY)
  target_include_directories(${target} PRIVATE "${PROJECT_BINARY_DIR}/made")
endfunction()
