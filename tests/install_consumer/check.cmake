# Installs the built library into a scratch prefix, then configures, builds and runs
# the consumer project against it.
#   cmake -DBUILD_DIR=... -DWORK_DIR=... -DSOURCE_DIR=... -DGENERATOR=... -DCXX=... -DFLAGS=... [-DLOG_TOOL=ON]
#         [-DTOOLCHAIN=file -DEMULATOR="command line"] -P check.cmake
# A cross build passes its toolchain file, and the emulator its programs run under.
file(REMOVE_RECURSE "${WORK_DIR}")
set(prefix "${WORK_DIR}/prefix")
separate_arguments(emulator UNIX_COMMAND "${EMULATOR}")
set(toolchain "")
if(TOOLCHAIN)
  set(toolchain "-DCMAKE_TOOLCHAIN_FILE=${TOOLCHAIN}")
endif()
function(step)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE rc)
  if(NOT rc EQUAL 0)
    message(FATAL_ERROR "failed (${rc}): ${ARGN}")
  endif()
endfunction()
step(${CMAKE_COMMAND} --install "${BUILD_DIR}" --prefix "${prefix}")
# The log reading tool and its lnav format, when the tools are built.
if(LOG_TOOL)
  step(${emulator} "${prefix}/bin/zudebug-log" --help)
  if(NOT EXISTS "${prefix}/share/zudebug/zudebug-log.lnav.json")
    message(FATAL_ERROR "the lnav format is not installed")
  endif()
endif()
step(${CMAKE_COMMAND} -S "${SOURCE_DIR}" -B "${WORK_DIR}/build" -G "${GENERATOR}" ${toolchain} "-DCMAKE_CXX_COMPILER=${CXX}"
     "-DCMAKE_PREFIX_PATH=${prefix}" "-DCMAKE_CXX_FLAGS=${FLAGS}" "-DCMAKE_EXE_LINKER_FLAGS=${FLAGS}")
step(${CMAKE_COMMAND} --build "${WORK_DIR}/build")
step(${CMAKE_COMMAND} -E env ZUDEBUG_ROOT=${WORK_DIR} ZUDEBUG_LOGCAT=${WORK_DIR}/logcat.txt
     ${emulator} "${WORK_DIR}/build/consumer")
