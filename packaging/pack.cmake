# Makes the packages of a build, all of them anew:
#
#   cmake -D BUILD=<directory> -D PACKAGES=<directory> -P packaging/pack.cmake
#
# The build's prefix has to be /usr.

if(NOT EXISTS ${BUILD}/CPackConfig.cmake)
    message(FATAL_ERROR "there is no build in ${BUILD}: make it first, with ./dev build")
endif()
file(REMOVE_RECURSE ${PACKAGES})
execute_process(COMMAND ${CMAKE_CPACK_COMMAND} -B ${PACKAGES} WORKING_DIRECTORY ${BUILD}
    OUTPUT_VARIABLE output ERROR_VARIABLE output RESULT_VARIABLE result)
if(NOT result EQUAL 0)
    message(FATAL_ERROR "${output}")
endif()
file(REMOVE_RECURSE ${PACKAGES}/_CPack_Packages)
