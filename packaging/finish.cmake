# cpack runs this on the packages. It adds a field that cpack does not know: those of the library can be installed for several
# architectures at once. And it removes the scripts with which cpack calls ldconfig: the package has a trigger for it.
foreach(package IN LISTS CPACK_PACKAGE_FILES)
  if(package MATCHES "/libtavipc[^/]*$")
    set(tree ${CPACK_TEMPORARY_DIRECTORY}/finish)
    file(REMOVE_RECURSE ${tree})
    execute_process(COMMAND dpkg-deb -R ${package} ${tree} COMMAND_ERROR_IS_FATAL ANY)
    execute_process(COMMAND sed -i "/^Architecture:/aMulti-Arch: same" ${tree}/DEBIAN/control COMMAND_ERROR_IS_FATAL ANY)
    file(REMOVE ${tree}/DEBIAN/postinst ${tree}/DEBIAN/postrm)
    execute_process(COMMAND dpkg-deb --root-owner-group -Zxz -b ${tree} ${package} OUTPUT_QUIET COMMAND_ERROR_IS_FATAL ANY)
  endif()
endforeach()
