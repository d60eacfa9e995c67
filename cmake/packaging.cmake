# What is installed besides the program, and "cpack" in the build directory, which makes the Debian package.
install(FILES packaging/varnel.service DESTINATION lib/systemd/system)
install(PROGRAMS packaging/await-devices DESTINATION lib/varnel)
install(FILES README.md CHANGELOG.md DESTINATION share/doc/varnel)
install(DIRECTORY docs/ DESTINATION share/doc/varnel/docs)
install(FILES packaging/deployment.json DESTINATION share/doc/varnel/examples)

set(VARNEL_MAINTAINER "varnel maintainers <varnel@localhost>" CACHE STRING "Who stands behind the Debian package")

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME varnel)
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "service daemon of a networked 3D printer")
set(CPACK_PACKAGE_DESCRIPTION
  "Answers JSON-RPC 2.0 over the MQTT broker on the printer's controller board: photos and board services.")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)  # the crash report names functions by the dynamic symbols, which stay

set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_MAINTAINER ${VARNEL_MAINTAINER})
set(CPACK_DEBIAN_PACKAGE_SECTION misc)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_DEPENDS "ffmpeg, tar, gzip, openssl, ca-certificates, debianutils, i2c-tools")
set(CPACK_DEBIAN_PACKAGE_RECOMMENDS
  "mosquitto, procps, util-linux, kmod, lsof, sysstat, usbutils, net-tools, iputils-ping, bind9-dnsutils, iw, wpasupplicant")
set(CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA
  ${PROJECT_SOURCE_DIR}/packaging/postinst
  ${PROJECT_SOURCE_DIR}/packaging/prerm
  ${PROJECT_SOURCE_DIR}/packaging/postrm)
if(CMAKE_SYSTEM_PROCESSOR STREQUAL "aarch64")
  set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE arm64)
endif()
include(CPack)
