# What `cmake --install` (with DESTDIR, or from the `package` target) puts in place: the programs, the
# client library (shared and static) with the headers of its API only, its pkg-config file, the systemd
# user units with this prefix's paths, the manual pages and the docs.
include(GNUInstallDirs)

# The installed client library carries everything it uses of this project (the client, the transport,
# the model records, the base), so that an application links it alone. Its headers go to
# <includedir>/vorlen and keep their folder names: `#include "client/VorlenClient.h"`.
set(VORLEN_CLIENT_PARTS vorlen-client vorlen_ipc vorlen-model vorlen_base)
set(client_objects "")
foreach(part IN LISTS VORLEN_CLIENT_PARTS)
  list(APPEND client_objects $<TARGET_OBJECTS:${part}>)
endforeach()
add_library(vorlen-client-shared SHARED ${client_objects})
target_link_libraries(vorlen-client-shared PRIVATE Threads::Threads fmt::fmt PkgConfig::PLIST OpenSSL::Crypto ZLIB::ZLIB)
if(SYSTEMD_FOUND)
  target_link_libraries(vorlen-client-shared PRIVATE PkgConfig::SYSTEMD)
endif()
add_library(vorlen-client-static STATIC ${client_objects})
foreach(lib vorlen-client-shared vorlen-client-static)
  # A folder of its own: the build tree's internal libvorlen-client.a keeps its name and place.
  set_target_properties(${lib} PROPERTIES OUTPUT_NAME vorlen-client
    LIBRARY_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR}/dist ARCHIVE_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR}/dist)
endforeach()
set_target_properties(vorlen-client-shared PROPERTIES VERSION ${PROJECT_VERSION} SOVERSION ${PROJECT_VERSION_MAJOR})

# The public headers: VorlenClient.h and what it includes (no transport, no queue runtime), plus the
# feedback record that reportEvent takes. The install test compiles against exactly this set.
set(VORLEN_CLIENT_HEADERS
  base/Clock.h base/UniqueFd.h base/Uuid.h base/Value.h
  client/ClientReplies.h client/ClientResult.h client/VorlenClient.h
  ipc/IpcEndpoint.h
  model/QXFeedback.h model/QXSearchSuggestion.h model/RecordBinding.h model/RecordCoder.h
  model/RecordSchema.h model/TypedRecord.h model/VORBag.h model/VORError.h model/VORQueryItem.h
  model/VORReply.h model/VORRequest.h model/VORSessionConfiguration.h)
foreach(header IN LISTS VORLEN_CLIENT_HEADERS)
  get_filename_component(folder ${header} DIRECTORY)
  install(FILES ${PROJECT_SOURCE_DIR}/src/${header} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/vorlen/${folder}
          COMPONENT dev)
endforeach()

install(TARGETS vorlend vorlenctl vorlen-refserver RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
install(TARGETS vorlen-client-shared LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} NAMELINK_COMPONENT dev)
install(TARGETS vorlen-client-static ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT dev)

# pkg-config: the libraries the static archive needs come in through Requires.private.
set(VORLEN_PC_REQUIRES_PRIVATE "libplist-2.0 fmt libcrypto zlib")
if(SYSTEMD_FOUND)
  string(APPEND VORLEN_PC_REQUIRES_PRIVATE " libsystemd")
endif()
# Made when installing, with the prefix installed to (as the units below).
install(CODE "
  set(CMAKE_INSTALL_PREFIX \"\${CMAKE_INSTALL_PREFIX}\")
  set(PROJECT_VERSION ${PROJECT_VERSION})
  set(VORLEN_PC_REQUIRES_PRIVATE \"${VORLEN_PC_REQUIRES_PRIVATE}\")
  set(VORLEN_PC_LIBDIR \"\\\${prefix}/${CMAKE_INSTALL_LIBDIR}\")
  set(VORLEN_PC_INCLUDEDIR \"\\\${prefix}/${CMAKE_INSTALL_INCLUDEDIR}\")
  configure_file(\"${PROJECT_SOURCE_DIR}/packaging/vorlen-client.pc.in\"
                 \"${PROJECT_BINARY_DIR}/dist/vorlen-client.pc\" @ONLY)" COMPONENT dev)
install(FILES ${PROJECT_BINARY_DIR}/dist/vorlen-client.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig
        COMPONENT dev)

# systemd user units, with the program path of the prefix installed to: made when installing, so that
# `cmake --install --prefix P` gets P's path, not the configured one.
install(CODE "
  set(VORLEN_BINDIR \"\${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_BINDIR}\")
  set(VORLEN_DOCDIR \"\${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_DOCDIR}\")
  configure_file(\"${PROJECT_SOURCE_DIR}/packaging/vorlend.service.in\"
                 \"${PROJECT_BINARY_DIR}/dist/vorlend.service\" @ONLY)")
set(VORLEN_USER_UNIT_DIR ${CMAKE_INSTALL_LIBDIR}/systemd/user CACHE STRING "Where the systemd user units go")
install(FILES ${PROJECT_BINARY_DIR}/dist/vorlend.service ${PROJECT_SOURCE_DIR}/packaging/vorlend.socket
        DESTINATION ${VORLEN_USER_UNIT_DIR})

install(FILES ${PROJECT_SOURCE_DIR}/packaging/vorlend.8 DESTINATION ${CMAKE_INSTALL_MANDIR}/man8)
install(FILES ${PROJECT_SOURCE_DIR}/packaging/vorlenctl.1 DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
install(FILES ${PROJECT_SOURCE_DIR}/README.md DESTINATION ${CMAKE_INSTALL_DOCDIR})
install(DIRECTORY ${PROJECT_SOURCE_DIR}/docs/ DESTINATION ${CMAKE_INSTALL_DOCDIR} FILES_MATCHING PATTERN "*.md")

set(CPACK_PACKAGE_NAME vorlend)
set(CPACK_PACKAGE_CONTACT "vorlend maintainers")
set(CPACK_GENERATOR TGZ)
include(CPack)
