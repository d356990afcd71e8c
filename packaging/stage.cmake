# Run by cpack on the files of all packages before they are packed: what Debian wants beyond a plain installation. Each
# package has its copyright and changelogs, documents go by the package's name, manual pages and changelogs are compressed
# and a page that stands for another one is a link to it.

# The date of the sources: packages of several architectures have the same files, and can be installed together.
if(NOT DEFINED ENV{SOURCE_DATE_EPOCH}) # which string(TIMESTAMP) and dpkg-deb use
  execute_process(COMMAND git log -1 --format=%ct WORKING_DIRECTORY ${CPACK_TAVIPC_SOURCE}
    OUTPUT_VARIABLE epoch OUTPUT_STRIP_TRAILING_WHITESPACE ERROR_QUIET)
  if(NOT epoch) # no repository
    file(TIMESTAMP ${CPACK_TAVIPC_SOURCE}/CHANGELOG.md epoch "%s" UTC)
  endif()
  set(ENV{SOURCE_DATE_EPOCH} ${epoch})
endif()
string(TIMESTAMP date "%a, %d %b %Y %H:%M:%S +0000" UTC)
foreach(component IN LISTS CPACK_COMPONENTS_ALL)
  set(usr ${CPACK_TEMPORARY_INSTALL_DIRECTORY}/${component}/usr)
  string(TOUPPER ${component} upper)
  set(doc ${usr}/share/doc/${CPACK_DEBIAN_${upper}_PACKAGE_NAME})
  file(MAKE_DIRECTORY ${usr}/share/doc)
  if(EXISTS ${usr}/share/doc/tavipc)
    file(RENAME ${usr}/share/doc/tavipc ${doc})
  endif()
  file(COPY ${CPACK_TAVIPC_SOURCE}/packaging/debian/copyright DESTINATION ${doc})
  file(COPY_FILE ${CPACK_TAVIPC_SOURCE}/CHANGELOG.md ${doc}/changelog)
  file(WRITE ${doc}/changelog.Debian
    "tavipc (${CPACK_PACKAGE_VERSION}-${CPACK_DEBIAN_PACKAGE_RELEASE}) unstable; urgency=medium\n\n"
    "  * Built from its source; changelog.gz lists the changes.\n\n"
    " -- ${CPACK_PACKAGE_CONTACT}  ${date}\n")
  file(GLOB_RECURSE pages ${usr}/share/man/*.[13578])
  set(plain ${doc}/changelog ${doc}/changelog.Debian)
  foreach(page IN LISTS pages)
    file(READ ${page} start LIMIT 200)
    if(start MATCHES "^\\.so man[13578]/([^\n]+)\n")
      file(REMOVE ${page})
      file(CREATE_LINK ${CMAKE_MATCH_1}.gz ${page}.gz SYMBOLIC)
    else()
      list(APPEND plain ${page})
    endif()
  endforeach()
  execute_process(COMMAND gzip -9nf ${plain} COMMAND_ERROR_IS_FATAL ANY)
  # whatever the umask is of who builds
  execute_process(COMMAND chmod -R u=rwX,go=rX ${CPACK_TEMPORARY_INSTALL_DIRECTORY}/${component}
    COMMAND_ERROR_IS_FATAL ANY)
endforeach()
