# `cmake --install` layout, the same on both platforms:
#   bin/                 tembra; on Windows also TembraKeyProv.dll, QXSKFAPI.dll
#                        and ORVEL_CRYPTO.dll, beside the program that loads them
#   lib/                 the shared libraries on Linux (found through the
#                        programs' $ORIGIN/../lib run path); import libraries
#                        (.dll.a) on Windows
#   include/             tembra_key_prov.h, softskf.h and platform/ (skf.h,
#                        orvel_crypto.h, and win_types.h, which skf.h includes)
#   share/doc/tembra/    README.md and docs/*.md
#   share/man/man1/      tembra.1, generated from tembra's help text
#   share/bash-completion/completions/
#                        tembra, the bash completion, generated likewise
#   share/tembra/        Windows only: TembraKey.reg, the provider's settings
# Components built in this tree are installed when their targets exist, so a
# partial build still installs what it has. Test programs are not installed.
include(GNUInstallDirs)

foreach(_tembra_target TembraKeyProv QXSKFAPI ORVEL_CRYPTO tembra)
  if(TARGET ${_tembra_target})
    install(TARGETS ${_tembra_target}
      RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR}
      LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
      ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR})
  endif()
endforeach()

install(FILES ${PROJECT_SOURCE_DIR}/include/tembra_key_prov.h
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(FILES
    ${PROJECT_SOURCE_DIR}/platform/skf.h
    ${PROJECT_SOURCE_DIR}/platform/orvel_crypto.h
    ${PROJECT_SOURCE_DIR}/platform/win_types.h
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/platform)
if(EXISTS ${PROJECT_SOURCE_DIR}/softskf/include/softskf.h)
  install(FILES ${PROJECT_SOURCE_DIR}/softskf/include/softskf.h
    DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
endif()

file(GLOB _tembra_docs ${PROJECT_SOURCE_DIR}/docs/*.md)
if(EXISTS ${PROJECT_SOURCE_DIR}/README.md)
  list(APPEND _tembra_docs ${PROJECT_SOURCE_DIR}/README.md)
endif()
if(_tembra_docs)
  install(FILES ${_tembra_docs} DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/tembra)
endif()

if(TEMBRA_MAN_PAGE)
  install(FILES ${TEMBRA_MAN_PAGE} DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
  install(FILES ${TEMBRA_BASH_COMPLETION}
    DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions RENAME tembra)
endif()

if(WIN32)
  install(FILES ${PROJECT_SOURCE_DIR}/packaging/windows/TembraKey.reg
    DESTINATION ${CMAKE_INSTALL_DATADIR}/tembra)
endif()
