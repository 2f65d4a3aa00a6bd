# The data directory beside the executable (the same in the build tree, an
# installation and the zip package): eagleplayer.conf, the demo module and
# players/ with the player orvel ships.
#
#   cmake --install <build> --prefix <dir>   orvel and orvel_data/ side by side
#                                            in <dir>/${ORVEL_INSTALL_DIR}
#   cmake --build <build> --target package   <build>/orvel-<version>-<system>.zip
set(ORVEL_DATA_DIR ${CMAKE_BINARY_DIR}/orvel_data)
configure_file(${CMAKE_SOURCE_DIR}/orvel_data/eagleplayer.conf
               ${ORVEL_DATA_DIR}/eagleplayer.conf COPYONLY)

if(WIN32)
  set(install_dir .)
  set(doc_dir .)
  set(system windows-x64)
else()
  set(install_dir bin)
  set(doc_dir share/doc/orvel)
  string(TOLOWER "${CMAKE_SYSTEM_NAME}-${CMAKE_SYSTEM_PROCESSOR}" system)
endif()
set(ORVEL_INSTALL_DIR ${install_dir} CACHE STRING
    "Directory under the install prefix that holds orvel and orvel_data/")
set(ORVEL_PACKAGE_NAME orvel-${PROJECT_VERSION}-${system})

install(TARGETS orvel RUNTIME DESTINATION ${ORVEL_INSTALL_DIR})
install(FILES ${ORVEL_DATA_DIR}/eagleplayer.conf ${ORVEL_DATA_DIR}/demo.mod
        DESTINATION ${ORVEL_INSTALL_DIR}/orvel_data)
get_target_property(player amiga_protracker ORVEL_HUNK_FILE)
if(player)
  install(FILES ${player} DESTINATION ${ORVEL_INSTALL_DIR}/orvel_data/players)
endif()
install(FILES ${CMAKE_SOURCE_DIR}/README.md DESTINATION ${doc_dir})

# The package is an installation zipped under one top folder.
add_custom_target(package
  COMMAND ${CMAKE_COMMAND} -DBUILD=${CMAKE_BINARY_DIR} -DNAME=${ORVEL_PACKAGE_NAME}
          -DOUT=${CMAKE_BINARY_DIR} -P ${CMAKE_SOURCE_DIR}/cmake/make_package.cmake
  COMMENT "Packing ${ORVEL_PACKAGE_NAME}.zip"
  VERBATIM)
add_dependencies(package orvel demo_mod amiga_protracker)
