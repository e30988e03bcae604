# `cpack` in the build folder makes a Debian package of what `cmake --install` installs, under
# /usr, with its library dependencies found by dpkg-shlibdeps.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME tanner-backup)
set(CPACK_PACKAGE_VENDOR Tannerwick)
set(CPACK_PACKAGE_CONTACT "Tannerwick <support@tannerwick.com>")
set(CPACK_PACKAGE_HOMEPAGE_URL https://www.tannerwick.com/)
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "mirror chosen folders onto a backup device, by hand")
set(CPACK_PACKAGE_DESCRIPTION_FILE ${CMAKE_CURRENT_LIST_DIR}/description.txt)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION utils)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
# The window's module is loaded at run time, so its libraries are found from it as well; the Qt
# platform plug-ins (X11, Wayland) are not linked by anything and are named here.
if(TARGET tanner-backup-desktop)
  set(CPACK_DEBIAN_PACKAGE_DEPENDS "qt6-qpa-plugins")
  set(CPACK_DEBIAN_PACKAGE_RECOMMENDS "qt6-wayland")
endif()
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)

# What Debian asks of every package: the copyright file and a compressed change log.
set(TANNER_DEBIAN_DOC ${CMAKE_BINARY_DIR}/debian-doc)
file(MAKE_DIRECTORY ${TANNER_DEBIAN_DOC})
configure_file(${CMAKE_CURRENT_LIST_DIR}/copyright ${TANNER_DEBIAN_DOC}/copyright COPYONLY)
add_custom_command(OUTPUT ${TANNER_DEBIAN_DOC}/changelog.gz
  COMMAND gzip -9nc ${CMAKE_CURRENT_LIST_DIR}/changelog > ${TANNER_DEBIAN_DOC}/changelog.gz
  DEPENDS ${CMAKE_CURRENT_LIST_DIR}/changelog)
add_custom_target(tanner-backup-changelog ALL DEPENDS ${TANNER_DEBIAN_DOC}/changelog.gz)
install(FILES ${TANNER_DEBIAN_DOC}/copyright ${TANNER_DEBIAN_DOC}/changelog.gz
  DESTINATION share/doc/tanner-backup)
include(CPack)
