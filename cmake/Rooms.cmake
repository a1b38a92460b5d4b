# Rooms: each folder of the tree is one target that lists its files and names the rooms it uses. What is said here is
# written to rooms.txt in the build folder, where scripts/rooms reads it to hold every #include against it.

# vornik_room(TARGET FILES file... [USES room...]): a library of the files of this folder.
function(vornik_room target)
  cmake_parse_arguments(ARG "" "" "FILES;USES" ${ARGN})
  set(sources ${ARG_FILES})
  list(FILTER sources INCLUDE REGEX "\\.cpp$")
  if(sources)
    add_library(${target} STATIC ${ARG_FILES})
    target_link_libraries(${target} PUBLIC ${ARG_USES} Threads::Threads)
  else()
    add_library(${target} INTERFACE)
    target_link_libraries(${target} INTERFACE ${ARG_USES})
  endif()
  vornik_note_room(${target} FILES ${ARG_FILES} USES ${ARG_USES})
endfunction()

# The same for a program, which is put where the build folder begins.
function(vornik_program target)
  cmake_parse_arguments(ARG "" "" "FILES;USES" ${ARGN})
  add_executable(${target} ${ARG_FILES})
  target_link_libraries(${target} PRIVATE ${ARG_USES})
  set_target_properties(${target} PROPERTIES RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR})
  vornik_note_room(${target} FILES ${ARG_FILES} USES ${ARG_USES})
endfunction()

# A line "target: folder: files: rooms".
function(vornik_note_room target)
  cmake_parse_arguments(ARG "" "" "FILES;USES" ${ARGN})
  file(RELATIVE_PATH folder ${PROJECT_SOURCE_DIR} ${CMAKE_CURRENT_SOURCE_DIR})
  list(JOIN ARG_FILES " " files)
  list(JOIN ARG_USES " " uses)
  set_property(GLOBAL APPEND_STRING PROPERTY VORNIK_ROOMS "${target}:${folder}:${files}:${uses}\n")
endfunction()

# Behind the last room.
function(vornik_write_rooms)
  get_property(rooms GLOBAL PROPERTY VORNIK_ROOMS)
  file(WRITE ${CMAKE_BINARY_DIR}/rooms.txt "${rooms}")
endfunction()
