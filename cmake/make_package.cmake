# Installs a build into a staging folder and zips it.
#   -DBUILD=<build dir> -DNAME=<package name> -DOUT=<dir for NAME.zip>
cmake_minimum_required(VERSION 3.25)
set(stage ${OUT}/${NAME}.stage)
file(REMOVE_RECURSE ${stage})
file(REMOVE ${OUT}/${NAME}.zip)
execute_process(COMMAND ${CMAKE_COMMAND} --install ${BUILD} --prefix ${stage}/${NAME}
                RESULT_VARIABLE rc OUTPUT_QUIET)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "package: install into ${stage} failed")
endif()
execute_process(COMMAND ${CMAKE_COMMAND} -E tar cf ${OUT}/${NAME}.zip --format=zip ${NAME}
                WORKING_DIRECTORY ${stage} RESULT_VARIABLE rc)
file(REMOVE_RECURSE ${stage})
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "package: zip failed")
endif()
message(STATUS "package: ${OUT}/${NAME}.zip")
