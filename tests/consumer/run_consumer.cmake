# Installs the built library into a private prefix, builds the consumer against it and runs it.
set(prefix ${WORK_DIR}/prefix)
file(REMOVE_RECURSE ${WORK_DIR})
execute_process(COMMAND ${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${prefix} RESULT_VARIABLE rc)
if(rc)
  message(FATAL_ERROR "install failed: ${rc}")
endif()
execute_process(COMMAND ${CMAKE_COMMAND} -S ${SOURCE_DIR} -B ${WORK_DIR}/build -G Ninja
                        -DCMAKE_PREFIX_PATH=${prefix} "-DSANITIZE=${SANITIZE}" RESULT_VARIABLE rc)
if(rc)
  message(FATAL_ERROR "configure failed: ${rc}")
endif()
execute_process(COMMAND ${CMAKE_COMMAND} --build ${WORK_DIR}/build RESULT_VARIABLE rc)
if(rc)
  message(FATAL_ERROR "build failed: ${rc}")
endif()
execute_process(COMMAND ${WORK_DIR}/build/consumer RESULT_VARIABLE rc OUTPUT_VARIABLE out)
message(STATUS "consumer said: ${out}")
if(rc OR NOT out MATCHES "consumer ok")
  message(FATAL_ERROR "consumer failed: ${rc}")
endif()

# The installed tool finds the installed library through its own run path, in an environment that
# names no library directories.
execute_process(COMMAND env -i ZROBJ_HOME=${WORK_DIR}/home ${prefix}/bin/zrtool --help
                RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err)
if(rc OR NOT out MATCHES "usage: zrtool")
  message(FATAL_ERROR "installed zrtool --help failed (${rc}): ${err}")
endif()
