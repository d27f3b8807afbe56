# What `cmake --install` puts where: everything in one folder below lib, in which the launcher finds
# the rest, with links from bin; and the page of the manual, completion for bash, and documents.
include(GNUInstallDirs)
set(home lib/${PROJECT_NAME})

# installLink(<name> <file>): a link of that name in bin to the file.
function(installLink name target)
  install(CODE "file(MAKE_DIRECTORY \"\$ENV{DESTDIR}\${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_BINDIR}\")
    file(CREATE_LINK ../${home}/${target}
         \"\$ENV{DESTDIR}\${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_BINDIR}/${name}\" SYMBOLIC)")
endfunction()

install(FILES VERSION DESTINATION ${home})
install(PROGRAMS bin/twprofile DESTINATION ${home}/bin)
install(TARGETS javanativeagent LIBRARY DESTINATION ${home}/lib)
install(FILES ${TW_OUTPUT_DIR}/javanativeagent.jar ${TW_OUTPUT_DIR}/twprofile.jar
        DESTINATION ${home}/lib)
installLink(twprofile bin/twprofile)
foreach(program twreport twcontrol twwatch)
  if(TARGET ${program})
    install(TARGETS ${program} RUNTIME DESTINATION ${home}/lib)
  endif()
endforeach()
if(TARGET twreport)
  installLink(twreport lib/twreport)
endif()

install(FILES completions/twprofile DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions)
install(FILES README.md CHANGELOG.md DESTINATION ${CMAKE_INSTALL_DOCDIR})
install(DIRECTORY docs contrib DESTINATION ${CMAKE_INSTALL_DOCDIR})
set(manual ${CMAKE_CURRENT_BINARY_DIR}/twprofile.1)
install(CODE "execute_process(COMMAND ${CMAKE_SOURCE_DIR}/scripts/make-manual ${manual}
                              COMMAND_ERROR_IS_FATAL ANY)")
install(FILES ${manual} DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
