# The Debian package: `cpack -G DEB` in a build directory (see docs/architecture.md, Packaging).
# It holds the install component `hadrix`; files are laid out under /usr.

set(CPACK_PACKAGE_NAME hadrix)
set(CPACK_PACKAGE_VENDOR "hadrix developers")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "USB audio device service of the TV platform")
set(CPACK_PACKAGE_DESCRIPTION "hadrix watches USB audio devices (headsets, speakers, webcams, gamepads
with audio), routes the TV sound to a USB headset the viewer plugs in, owns its volume and mute,
and offers a D-Bus API to client applications. On a PC the platform's own services come from
D-Bus peers; the package installs the daemon with its systemd unit, D-Bus policy and activation
files, a udev rule that starts it when a USB sound card appears, and the system user it runs as.")
set(CPACK_PACKAGE_CONTACT "hadrix developers <hadrix@localhost>")
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_COMPONENTS_ALL hadrix)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)

set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION sound)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
# The shared libraries' packages come from dpkg-shlibdeps (package dpkg-dev).
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
# The maintainer scripts create the service's user (sysusers) and its directories (tmpfiles).
set(CPACK_DEBIAN_PACKAGE_DEPENDS "dbus, systemd | systemd-sysusers, systemd | systemd-tmpfiles")
set(CPACK_DEBIAN_PACKAGE_RECOMMENDS "systemd, udev")
set(CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA
    "${PROJECT_SOURCE_DIR}/data/debian/postinst;${PROJECT_SOURCE_DIR}/data/debian/postrm")
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)

include(CPack)
