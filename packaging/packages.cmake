# One Debian package for each component; ./dev package. stage.cmake works on what is installed for them,
# finish.cmake on the packages.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME tavipc)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
set(CPACK_PACKAGE_CONTACT "The tavipc authors <tavipc@localhost>")
if(DEFINED ENV{DEBEMAIL} AND DEFINED ENV{DEBFULLNAME}) # who ships the packages, as Debian's tools know it
  set(CPACK_PACKAGE_CONTACT "$ENV{DEBFULLNAME} <$ENV{DEBEMAIL}>")
endif()
set(CPACK_COMPONENTS_ALL runtime development tools)
if(TARGET tav-bridge)
  list(APPEND CPACK_COMPONENTS_ALL bridge)
endif()
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_SET_DESTDIR ON) # /etc is not below the prefix
set(CPACK_STRIP_FILES ON)
set(CPACK_DEBIAN_COMPRESSION_TYPE xz)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
  OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
set(CPACK_PRE_BUILD_SCRIPTS ${CMAKE_CURRENT_SOURCE_DIR}/stage.cmake)
set(CPACK_POST_BUILD_SCRIPTS ${CMAKE_CURRENT_SOURCE_DIR}/finish.cmake)
set(CPACK_TAVIPC_SOURCE ${PROJECT_SOURCE_DIR}) # for stage.cmake

set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${CMAKE_LIBRARY_OUTPUT_DIRECTORY})
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")
set(CPACK_DEBIAN_PACKAGE_SOURCE tavipc)
set(same_version "(= ${PROJECT_VERSION}-${CPACK_DEBIAN_PACKAGE_RELEASE})")

set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME libtavipc0)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_RECOMMENDS tavipc-tools)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA ${CMAKE_CURRENT_SOURCE_DIR}/debian/triggers)
set(CPACK_COMPONENT_RUNTIME_DESCRIPTION "messages between the processes of an endpoint agent
libtavipc sends messages, requests and files between the modules of an
endpoint agent, which are processes of one machine. It uses Unix-domain
datagram sockets and runs inside the event loop of the program. Only
executables named in a signed allow-list may open endpoints.
.
This package contains the shared libraries: libtavipc, and libtavbase,
libtavaux and libtavcl_ev, which it is based on.")

set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME libtavipc-dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS "libtavipc0 ${same_version}")
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SUGGESTS tavipc-tools)
set(CPACK_COMPONENT_DEVELOPMENT_DESCRIPTION "messages between processes of an endpoint agent - development
libtavipc sends messages, requests and files between the modules of an
endpoint agent, which are processes of one machine.
.
This package contains the headers, the pkg-config and CMake packages, the
manual pages of the functions, and example programs.")

set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME tavipc-tools)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION admin)
set(CPACK_DEBIAN_TOOLS_PACKAGE_DEPENDS "libtavipc0 ${same_version}")
set(CPACK_DEBIAN_TOOLS_PACKAGE_CONTROL_EXTRA ${CMAKE_CURRENT_SOURCE_DIR}/debian/postinst
  ${CMAKE_CURRENT_SOURCE_DIR}/debian/prerm ${CMAKE_CURRENT_SOURCE_DIR}/debian/postrm)
set(CPACK_COMPONENT_TOOLS_DESCRIPTION "messages between the processes of an endpoint agent - tools
tavctl inspects the endpoints of an agent's modules, sends to them, checks the
machine, and maintains the signed list of executables that may open endpoints.
.
This package also contains the agent's directory /usr/lib/tavipc with its
configuration in /etc/tavipc, the socket directory, the kernel setting for
longer queues, a dissector for Wireshark, and the manual pages for
administrators.")

set(CPACK_DEBIAN_BRIDGE_PACKAGE_NAME tavipc-bridge)
set(CPACK_DEBIAN_BRIDGE_PACKAGE_SECTION admin)
set(CPACK_DEBIAN_BRIDGE_PACKAGE_DEPENDS "libtavipc0 ${same_version}, tavipc-tools ${same_version}")
set(CPACK_DEBIAN_BRIDGE_PACKAGE_SUGGESTS nats-server)
set(CPACK_DEBIAN_BRIDGE_PACKAGE_CONTROL_EXTRA ${CMAKE_CURRENT_SOURCE_DIR}/debian/bridge/postinst
  ${CMAKE_CURRENT_SOURCE_DIR}/debian/bridge/prerm ${CMAKE_CURRENT_SOURCE_DIR}/debian/bridge/postrm)
set(CPACK_COMPONENT_BRIDGE_DESCRIPTION "messages between the processes of an endpoint agent - bridge
tav-bridge joins the locations of a machine, and agents of many machines,
through NATS servers with JetStream. Messages are stored until the receiving
module's socket has taken them.
.
The service is not started: it needs a configuration and a place in the
allow-list, see tav-bridge(8).")

include(CPack)
