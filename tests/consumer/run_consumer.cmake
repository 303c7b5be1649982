# Installs the build into a scratch prefix, then configures, builds and runs the consumer.
# For a cross build, TOOLCHAIN_FILE and EMULATOR say how to build and run for the target.
file(REMOVE_RECURSE ${WORK_DIR})
set(prefix ${WORK_DIR}/prefix)
execute_process(COMMAND ${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${prefix}
                RESULT_VARIABLE rc)
if(rc)
    message(FATAL_ERROR "install failed: ${rc}")
endif()
if(TOOLCHAIN_FILE)
    # The toolchain searches its find roots only: make the scratch prefix one of them.
    set(compiler_args -DCMAKE_TOOLCHAIN_FILE=${TOOLCHAIN_FILE} -DCMAKE_FIND_ROOT_PATH=${prefix})
else()
    set(compiler_args -DCMAKE_CXX_COMPILER=${CXX})
endif()
execute_process(COMMAND ${CMAKE_COMMAND} -S ${SOURCE_DIR}/tests/consumer -B ${WORK_DIR}/build
                        -G ${GENERATOR} ${compiler_args} -DCMAKE_PREFIX_PATH=${prefix}
                RESULT_VARIABLE rc)
if(rc)
    message(FATAL_ERROR "configure failed: ${rc}")
endif()
execute_process(COMMAND ${CMAKE_COMMAND} --build ${WORK_DIR}/build RESULT_VARIABLE rc)
if(rc)
    message(FATAL_ERROR "build failed: ${rc}")
endif()
find_file(pcfile tolven.pc PATHS ${prefix} PATH_SUFFIXES lib/pkgconfig lib64/pkgconfig lib/x86_64-linux-gnu/pkgconfig NO_DEFAULT_PATH)
if(NOT pcfile)
    message(FATAL_ERROR "tolven.pc was not installed")
endif()
# A DLL is found beside the program that loads it.
file(GLOB dlls ${prefix}/bin/*.dll)
if(dlls)
    file(COPY ${dlls} DESTINATION ${WORK_DIR}/build)
endif()
execute_process(COMMAND ${EMULATOR} ${WORK_DIR}/build/consumer${EXE_SUFFIX}
                RESULT_VARIABLE rc OUTPUT_VARIABLE out)
if(rc OR NOT out MATCHES "consumer ok")
    message(FATAL_ERROR "consumer failed: ${rc} ${out}")
endif()
