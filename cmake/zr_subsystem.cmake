# zr_subsystem(NAME SOURCES ... DEPENDS ...): one subsystem folder of the library as one object
# library, linked into libzrobju.so; with ZR_BUILD_TESTING_LIBRARY also compiled a second time
# with every symbol visible, for the testing copy of the library that tests and benchmarks link.
#
# NAME is the folder below src/zrobj (or "platform"); DEPENDS lists the subsystems whose private
# headers it may include. The graph is written to ${CMAKE_BINARY_DIR}/layers.txt, one line per
# subsystem ("name: dep dep ..."), which the layering check reads.
set(ZR_LAYERS_FILE ${CMAKE_BINARY_DIR}/layers.txt)
file(WRITE ${ZR_LAYERS_FILE} "")
set_property(GLOBAL PROPERTY ZR_SUBSYSTEM_TARGETS "")

function(zr_subsystem_target out name)
  string(REPLACE "/" "_" target "zr_${name}")
  set(${out} ${target} PARENT_SCOPE)
endfunction()

# The objects of one subsystem; `visible` compiles them with every symbol visible, for the
# testing copy of the library.
function(zr_subsystem_objects target visible)
  add_library(${target} OBJECT ${ARGN})
  if(NOT visible)
    set_target_properties(${target} PROPERTIES CXX_VISIBILITY_PRESET hidden VISIBILITY_INLINES_HIDDEN ON)
  endif()
  target_compile_definitions(${target} PRIVATE ZROBJ_BUILDING_LIBRARY=1)
  # Calls between the library's own exported functions bind inside the library (and may inline).
  target_compile_options(${target} PRIVATE -fno-semantic-interposition ${ZR_LIBRARY_COMPILE_OPTIONS})
  target_include_directories(${target} PRIVATE
    ${PROJECT_SOURCE_DIR}/include ${PROJECT_SOURCE_DIR}/src/zrobj ${PROJECT_SOURCE_DIR})
  target_link_libraries(${target} PRIVATE Threads::Threads)
endfunction()

function(zr_subsystem name)
  cmake_parse_arguments(ARG "" "" "SOURCES;DEPENDS" ${ARGN})
  zr_subsystem_target(target ${name})
  zr_subsystem_objects(${target} OFF ${ARG_SOURCES})
  if(ZR_BUILD_TESTING_LIBRARY)
    zr_subsystem_objects(${target}_testing ON ${ARG_SOURCES})
  endif()
  foreach(dep ${ARG_DEPENDS})
    zr_subsystem_target(dep_target ${dep})
    if(NOT TARGET ${dep_target})
      message(FATAL_ERROR "subsystem ${name} depends on ${dep}, which is not declared before it")
    endif()
  endforeach()
  list(JOIN ARG_DEPENDS " " deps)
  file(APPEND ${ZR_LAYERS_FILE} "${name}: ${deps}\n")
  set_property(GLOBAL APPEND PROPERTY ZR_SUBSYSTEM_TARGETS ${target})
endfunction()
