# Installs the built project into a scratch prefix, then builds and runs a
# small host against it through find_package(lumen_fx) and through pkg-config.
# Arguments: -DBUILD_DIR= -DSOURCE_DIR= -DWORK_DIR= [-DCONSUMER_FLAGS=] (the sanitizer flags
# of a sanitized build, which its consumer needs too)
file(REMOVE_RECURSE ${WORK_DIR})
set(prefix ${WORK_DIR}/prefix)

function(run)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err)
  if(NOT rc EQUAL 0)
    message(FATAL_ERROR "failed (${rc}): ${ARGN}\n${out}\n${err}")
  endif()
  set(LAST_OUTPUT "${out}" PARENT_SCOPE)
endfunction()

run(${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${prefix})

foreach(f include/lumen_fx/OpenglImageManager.h include/lumen_fx/ImageFilterTypes.h include/kvodnnl/kvodnnl.h
          lib/cmake/lumen_fx/lumen_fxConfig.cmake lib/pkgconfig/lumen_fx.pc)
  if(NOT EXISTS ${prefix}/${f})
    message(FATAL_ERROR "not installed: ${f}")
  endif()
endforeach()
file(GLOB internal_headers ${prefix}/include/lumen_fx/*.h)
list(LENGTH internal_headers n)
if(NOT n EQUAL 2)
  message(FATAL_ERROR "only the two public headers belong in include/lumen_fx, found: ${internal_headers}")
endif()

# The library exports the facade, nothing else.
file(GLOB libs ${prefix}/lib/liblumen_fx.so.*.*.*)
run(nm -DC --defined-only ${libs})
string(REPLACE "\n" ";" symbols "${LAST_OUTPUT}")
foreach(line ${symbols})
  if(line MATCHES " [TWVDBRu] (.*)$")
    set(sym "${CMAKE_MATCH_1}")
    if(NOT sym MATCHES "^OpenglImageManager::")
      message(FATAL_ERROR "exported beyond the facade: ${sym}")
    endif()
  endif()
endforeach()

run(${CMAKE_COMMAND} -S ${SOURCE_DIR}/tests/install/consumer -B ${WORK_DIR}/consumer
    -DCMAKE_PREFIX_PATH=${prefix} -DCMAKE_BUILD_TYPE=Release
    "-DCMAKE_CXX_FLAGS=${CONSUMER_FLAGS}" "-DCMAKE_EXE_LINKER_FLAGS=${CONSUMER_FLAGS}")
run(${CMAKE_COMMAND} --build ${WORK_DIR}/consumer)
run(${WORK_DIR}/consumer/consumer)
if(NOT LAST_OUTPUT MATCHES "scene 0 channel 0 unknown -1")
  message(FATAL_ERROR "unexpected consumer output: ${LAST_OUTPUT}")
endif()

set(ENV{PKG_CONFIG_PATH} ${prefix}/lib/pkgconfig)
run(pkg-config --libs lumen_fx)
if(NOT LAST_OUTPUT MATCHES "-llumen_fx")
  message(FATAL_ERROR "unexpected pkg-config output: ${LAST_OUTPUT}")
endif()
run(pkg-config --variable=includedir lumen_fx)
string(STRIP "${LAST_OUTPUT}" includedir)
if(NOT EXISTS ${includedir}/lumen_fx/OpenglImageManager.h)
  message(FATAL_ERROR "pkg-config's include directory lacks the header: ${includedir}")
endif()
# The video recorder runs from the prefix (the library found beside it) and finds the stickers installed there.
run(${prefix}/bin/lumen_fx_video --help)
if(NOT LAST_OUTPUT MATCHES "INPUT\\.\\.\\." OR NOT EXISTS ${prefix}/share/lumen_fx/stickers/glasses01.png)
  message(FATAL_ERROR "the installed recorder or its stickers: ${LAST_OUTPUT}")
endif()
message(STATUS "install check passed")
