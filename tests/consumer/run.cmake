# Installs the library into a scratch prefix, then builds the consumer project
# twice: once through find_package(korvanta), once through add_subdirectory.
file(REMOVE_RECURSE ${KV_WORK_DIR})
file(MAKE_DIRECTORY ${KV_WORK_DIR})

function(run)
  execute_process(COMMAND ${ARGV} RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE out)
  if(NOT rc EQUAL 0)
    message(FATAL_ERROR "command failed (${rc}): ${ARGV}\n${out}")
  endif()
endfunction()

set(lib ${KV_WORK_DIR}/lib-build)
set(prefix ${KV_WORK_DIR}/prefix)
run(${CMAKE_COMMAND} -S ${KV_SOURCE_DIR} -B ${lib} -G ${KV_GENERATOR}
    -DCMAKE_BUILD_TYPE=Release -DKV_BUILD_TESTS=OFF -DKV_BUILD_TOOLS=OFF -DKV_BUILD_BENCH=OFF
    -DCMAKE_INSTALL_PREFIX=${prefix})
run(${CMAKE_COMMAND} --build ${lib} --target install)

foreach(mode installed subdirectory)
  set(b ${KV_WORK_DIR}/consumer-${mode})
  run(${CMAKE_COMMAND} -S ${KV_SOURCE_DIR}/tests/consumer -B ${b} -G ${KV_GENERATOR}
      -DKV_MODE=${mode} -DKV_SOURCE_DIR=${KV_SOURCE_DIR} -DCMAKE_PREFIX_PATH=${prefix})
  run(${CMAKE_COMMAND} --build ${b})
  run(${b}/consumer)
endforeach()

# The pkg-config file must point at the installed headers and library.
find_program(PKG_CONFIG pkg-config)
if(PKG_CONFIG)
  file(GLOB pcdir ${prefix}/lib*/pkgconfig ${prefix}/lib/*/pkgconfig)
  execute_process(COMMAND ${CMAKE_COMMAND} -E env PKG_CONFIG_PATH=${pcdir}
                  ${PKG_CONFIG} --cflags --libs korvanta
                  RESULT_VARIABLE rc OUTPUT_VARIABLE flags)
  if(NOT rc EQUAL 0 OR NOT flags MATCHES "include/korvanta" OR NOT flags MATCHES "-lkorvanta")
    message(FATAL_ERROR "pkg-config korvanta gave: ${flags}")
  endif()
endif()
