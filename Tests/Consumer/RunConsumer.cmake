# One step of the consumer tests, run with cmake -P.
#   STEP=install-prefix  cmake --install into WORK_DIR/prefix with space
#   STEP=install-deb     cpack the Debian packages, dpkg-deb -x them into
#                        WORK_DIR/deb root
#   STEP=consume         configure, build and run Examples/consumer against
#                        ROUTE's root, asking for version WANTS; EXPECT=run
#                        wants the render to pass, EXPECT=refused wants
#                        find_package to refuse the version.
cmake_minimum_required(VERSION 3.25)

function(step_run)
    execute_process(COMMAND ${ARGN} RESULT_VARIABLE result OUTPUT_VARIABLE out ERROR_VARIABLE out)
    set(out "${out}" PARENT_SCOPE)
    set(result "${result}" PARENT_SCOPE)
endfunction()

function(must_run)
    step_run(${ARGN})
    if(NOT result EQUAL 0)
        message(FATAL_ERROR "failed (${result}): ${ARGN}\n${out}")
    endif()
    message("${out}")
endfunction()

set(prefix_root "${WORK_DIR}/prefix with space")
set(deb_root "${WORK_DIR}/deb root")

if(STEP STREQUAL "install-prefix")
    file(REMOVE_RECURSE "${prefix_root}")
    must_run(${CMAKE_COMMAND} --install "${BUILD_DIR}" --prefix "${prefix_root}")
elseif(STEP STREQUAL "install-deb")
    file(REMOVE_RECURSE "${WORK_DIR}/packages" "${deb_root}")
    must_run(cpack -G DEB --config "${BUILD_DIR}/CPackConfig.cmake" -B "${WORK_DIR}/packages")
    file(GLOB debs "${WORK_DIR}/packages/*.deb")
    list(LENGTH debs count)
    if(NOT count EQUAL 2)
        message(FATAL_ERROR "expected a runtime and a -dev package, got: ${debs}")
    endif()
    foreach(deb IN LISTS debs)
        must_run(dpkg-deb -x "${deb}" "${deb_root}")
    endforeach()
elseif(STEP STREQUAL "consume")
    if(ROUTE STREQUAL "prefix")
        set(root "${prefix_root}")
    elseif(ROUTE STREQUAL "deb")
        set(root "${deb_root}/usr")
    else()
        message(FATAL_ERROR "unknown ROUTE '${ROUTE}'")
    endif()
    set(build "${WORK_DIR}/consumer ${ROUTE} ${WANTS}")
    file(REMOVE_RECURSE "${build}")
    step_run(${CMAKE_COMMAND} -S "${CONSUMER_DIR}" -B "${build}" -G Ninja
             -DCMAKE_CXX_COMPILER=${CXX_COMPILER} -DCMAKE_PREFIX_PATH=${root}
             -DCMAKE_FIND_PACKAGE_NO_PACKAGE_REGISTRY=ON -DVIREO_CONSUMER_WANTS=${WANTS})
    if(NOT EXPECT MATCHES "^(run|refused)$")
        message(FATAL_ERROR "unknown EXPECT '${EXPECT}'")
    elseif(EXPECT STREQUAL "refused")
        # CMake wraps its messages; compare the words, not the lines.
        string(REGEX REPLACE "[ \n]+" " " out "${out}")
        if(result EQUAL 0 OR NOT out MATCHES "compatible with requested version \"${WANTS}\"")
            message(FATAL_ERROR "version ${WANTS} was not refused as incompatible:\n${out}")
        endif()
        return()
    endif()
    if(NOT result EQUAL 0)
        message(FATAL_ERROR "configuring the consumer failed:\n${out}")
    endif()
    # The package must come from the route's root, not from anywhere else.
    file(STRINGS "${build}/CMakeCache.txt" found REGEX "^VireoKestrelWrapper_DIR:")
    string(FIND "${found}" "${root}/" at)
    if(NOT at GREATER -1)
        message(FATAL_ERROR "the package was found outside ${root}: ${found}")
    endif()
    must_run(${CMAKE_COMMAND} --build "${build}")
    must_run("${build}/consumer")
else()
    message(FATAL_ERROR "unknown STEP '${STEP}'")
endif()
