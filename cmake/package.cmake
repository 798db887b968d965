# What is installed where, and the Debian packages made of it: script/package.
#
# zorvd is the daemon with everything around it; libzorv1 is the C interface for VPN servers' plugins,
# libpam-zorv the PAM module, zorv-wireguard the watcher of WireGuard interfaces, zorv-ship what ships logs to
# PostgreSQL; zorv-dev is for programs that call the daemon.
include(GNUInstallDirs)
set(package ${CMAKE_SOURCE_DIR}/packaging)

install(TARGETS zorvd zorv-check RUNTIME DESTINATION ${CMAKE_INSTALL_SBINDIR} COMPONENT zorvd)
install(TARGETS zorvctl RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT zorvd)
set(manuals zorvd.8 zorv-check.8 zorvctl.1)
set(units zorvd.service zorvd.socket zorv-spool.service zorvd-logrotate.service zorvd-logrotate.timer)
if(TARGET platformd)
  install(TARGETS platformd RUNTIME DESTINATION ${CMAKE_INSTALL_SBINDIR} COMPONENT zorvd)
  # The daemon runs /usr/local/sbin/notify, which is no package's to own: tmpfiles links it here.
  install(TARGETS notify RUNTIME DESTINATION lib/zorv COMPONENT zorvd)
  list(APPEND manuals notify.8 platformd.8)
  list(APPEND units platformd.service)
endif()

foreach(manual ${manuals} pam_zorv.8 zorv-wireguard.8 zorv-ship.8)
  string(REGEX MATCH "[0-9]$" section ${manual})
  add_custom_command(OUTPUT ${CMAKE_BINARY_DIR}/man/${manual}.gz
                     COMMAND gzip -9nc ${package}/man/${manual} > ${CMAKE_BINARY_DIR}/man/${manual}.gz
                     DEPENDS ${package}/man/${manual})
  list(APPEND compressed ${CMAKE_BINARY_DIR}/man/${manual}.gz)
  if(manual IN_LIST manuals)
    install(FILES ${CMAKE_BINARY_DIR}/man/${manual}.gz
            DESTINATION ${CMAKE_INSTALL_MANDIR}/man${section} COMPONENT zorvd)
  endif()
endforeach()
file(MAKE_DIRECTORY ${CMAKE_BINARY_DIR}/man)
add_custom_target(manuals ALL DEPENDS ${compressed})

list(TRANSFORM units PREPEND ${package}/systemd/)
install(FILES ${units} DESTINATION /lib/systemd/system COMPONENT zorvd)
install(FILES ${package}/tmpfiles.conf DESTINATION lib/tmpfiles.d RENAME zorvd.conf COMPONENT zorvd)
install(FILES ${package}/logrotate.conf DESTINATION /etc/zorv COMPONENT zorvd)
install(FILES ${package}/vpn_block.conf DESTINATION /etc/config COMPONENT zorvd)
install(PROGRAMS ${package}/openvpn-hook DESTINATION /etc/zorv COMPONENT zorvd)
install(FILES ${package}/debian/lintian-overrides
        DESTINATION ${CMAKE_INSTALL_DATADIR}/lintian/overrides RENAME zorvd COMPONENT zorvd)
install(FILES ${package}/completion/zorvctl.bash
        DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions RENAME zorvctl
        COMPONENT zorvd)
# For its users; what the others say is for whoever works on this tree or calls the daemon.
install(FILES docs/packages.md docs/operations.md docs/feeders.md
        DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/zorvd COMPONENT zorvd)

# For programs that call the daemon, and for the service's other tools, which share its options.
set(client_libraries ${CMAKE_INSTALL_LIBDIR}/zorv)
if(ZORV_PLATFORM STREQUAL "bundled")
  install(TARGETS zorv_client zorv_records zorv_log zorv_kxbus zorv_os
                  zorv_options zorv_json zorv_notify zorv_nas
          ARCHIVE DESTINATION ${client_libraries} COMPONENT zorv-dev)
  set(client_headers kxbus/kxbus.h zorv/client/zorv_api_db.h zorv/client/zorv_api_mobile.h
      zorv/records/zorv_records.h zorv/records/zorv_connection_codes.h)
  set(options_headers zorv/options/global_options.h zorv/options/error_code.h zorv/json/json.h
      zorv/notify/nc_msg_db.h)
  list(TRANSFORM client_headers PREPEND src/)
  list(TRANSFORM options_headers PREPEND src/)
  install(FILES ${client_headers} ${options_headers}
          DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/zorv COMPONENT zorv-dev)
  foreach(module zorv-client zorv-options)
    configure_file(${package}/${module}.pc.in ${CMAKE_BINARY_DIR}/${module}.pc @ONLY)
    install(FILES ${CMAKE_BINARY_DIR}/${module}.pc
            DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT zorv-dev)
  endforeach()
endif()

install(TARGETS zorv LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT libzorv1
        NAMELINK_COMPONENT zorv-dev)
install(FILES src/libzorv/zorv.h DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT zorv-dev)
install(FILES docs/records.md docs/bus.md DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/zorv-dev COMPONENT zorv-dev)
# The examples are those of the page, which its test runs.
foreach(suffix c py sh)
  string(REPLACE py python language ${suffix})
  set(example ${CMAKE_BINARY_DIR}/examples/login.${suffix})
  add_custom_command(OUTPUT ${example}
                     COMMAND sed -n "/^```${language}\$/,/^```\$/{/^`/!p}" docs/feeders.md > ${example}
                     WORKING_DIRECTORY ${CMAKE_SOURCE_DIR} DEPENDS ${CMAKE_SOURCE_DIR}/docs/feeders.md VERBATIM)
  list(APPEND examples ${example})
endforeach()
file(MAKE_DIRECTORY ${CMAKE_BINARY_DIR}/examples)
add_custom_target(examples ALL DEPENDS ${examples})
install(FILES ${examples} DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/zorv-dev/examples COMPONENT zorv-dev)
configure_file(${package}/zorv.pc.in ${CMAKE_BINARY_DIR}/zorv.pc @ONLY)
install(FILES ${CMAKE_BINARY_DIR}/zorv.pc
        DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT zorv-dev)

if(TARGET pam_zorv)
  install(TARGETS pam_zorv LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}/security COMPONENT libpam-zorv)
  install(FILES ${package}/pam/zorv-vpn
          DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/libpam-zorv/examples COMPONENT libpam-zorv)
  install(FILES ${CMAKE_BINARY_DIR}/man/pam_zorv.8.gz
          DESTINATION ${CMAKE_INSTALL_MANDIR}/man8 COMPONENT libpam-zorv)
  set(pam_package libpam-zorv)
endif()

install(TARGETS zorv-wireguard RUNTIME DESTINATION ${CMAKE_INSTALL_SBINDIR} COMPONENT zorv-wireguard)
install(FILES ${package}/systemd/zorv-wireguard@.service DESTINATION /lib/systemd/system COMPONENT zorv-wireguard)
install(FILES ${CMAKE_BINARY_DIR}/man/zorv-wireguard.8.gz
        DESTINATION ${CMAKE_INSTALL_MANDIR}/man8 COMPONENT zorv-wireguard)

if(TARGET zorv-ship)
  install(TARGETS zorv-ship RUNTIME DESTINATION ${CMAKE_INSTALL_SBINDIR} COMPONENT zorv-ship)
  install(FILES ${package}/systemd/zorv-ship.service DESTINATION /lib/systemd/system COMPONENT zorv-ship)
  install(FILES ${CMAKE_BINARY_DIR}/man/zorv-ship.8.gz
          DESTINATION ${CMAKE_INSTALL_MANDIR}/man8 COMPONENT zorv-ship)
  install(PROGRAMS ${package}/zorv-ship-spread.sh
          DESTINATION ${CMAKE_INSTALL_DATADIR}/zorv-ship COMPONENT zorv-ship)
  set(ship_package zorv-ship)
endif()

# For one pppd only: its folder of plugins bears its version.
if(TARGET zorv_ppp)
  install(TARGETS zorv_ppp LIBRARY DESTINATION lib/pppd/${ZORV_PPPD_VERSION} COMPONENT zorv-ppp)
  set(ppp_package zorv-ppp)
endif()

# What every package has: who made it, and what is new.
set(components zorvd zorv-dev libzorv1 zorv-wireguard ${pam_package} ${ppp_package} ${ship_package})
add_custom_command(OUTPUT ${CMAKE_BINARY_DIR}/changelog.gz
                   COMMAND gzip -9nc ${package}/debian/changelog > ${CMAKE_BINARY_DIR}/changelog.gz
                   DEPENDS ${package}/debian/changelog)
add_custom_target(changelog ALL DEPENDS ${CMAKE_BINARY_DIR}/changelog.gz)
foreach(component ${components})
  install(FILES ${CMAKE_BINARY_DIR}/changelog.gz ${package}/debian/copyright
          DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/${component} COMPONENT ${component})
endforeach()

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME zorvd)
set(CPACK_PACKAGE_VENDOR "zorvd")
# Each package has a synopsis of its own, the first line of its description.
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "")
set(CPACK_PACKAGE_CONTACT "zorvd maintainers <maintainers@zorvd.invalid>")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_COMPONENTS_ALL ${components})
set(CPACK_COMPONENTS_GROUPING IGNORE)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
if(CMAKE_CROSSCOMPILING)
  set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE armhf)
endif()

set(CPACK_DEBIAN_ZORVD_PACKAGE_NAME zorvd)
set(CPACK_DEBIAN_ZORVD_PACKAGE_SECTION net)
set(CPACK_DEBIAN_ZORVD_DESCRIPTION "Record daemon of a NAS's VPN service
Keeps the records of VPN servers and clients, decides who is blocked after
failed logins and sends notifications; with zorvctl, its command line, and
stand-ins for the services of the NAS's platform.")
# Written down rather than asked of the libraries, which a cross-build has no package database for.
set(CPACK_DEBIAN_ZORVD_PACKAGE_DEPENDS
    "libc6 (>= 2.36), libgcc-s1 (>= 3.5), libstdc++6 (>= 12), libsqlite3-0 (>= 3.24.0), \
libjansson4 (>= 2.14), libfmt9 (>= 9.1), init-system-helpers (>= 1.54~), \
systemd-standalone-tmpfiles | systemd, logrotate")
set(CPACK_DEBIAN_ZORVD_PACKAGE_SUGGESTS "bash-completion, libjs-chart.js, sqlite3")
set(CPACK_DEBIAN_ZORVD_PACKAGE_CONTROL_EXTRA
    "${package}/debian/preinst;${package}/debian/postinst;${package}/debian/prerm;${package}/debian/postrm;\
${package}/debian/conffiles")
set(CPACK_DEBIAN_ZORVD_PACKAGE_CONTROL_STRICT_PERMISSION ON)

set(CPACK_DEBIAN_ZORV-DEV_PACKAGE_NAME zorv-dev)
set(CPACK_DEBIAN_ZORV-DEV_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_ZORV-DEV_PACKAGE_DEPENDS "libzorv1 (= ${PROJECT_VERSION}), libstdc++-12-dev, \
libjansson-dev")
set(CPACK_DEBIAN_ZORV-DEV_DESCRIPTION "Client interface of a NAS's VPN service's record daemon
Headers and libraries for programs that call zorvd: zorv.h and libzorv for C,
static libraries for C++ and for tools that read the service's options.")

set(CPACK_DEBIAN_LIBZORV1_PACKAGE_NAME libzorv1)
set(CPACK_DEBIAN_LIBZORV1_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_LIBZORV1_PACKAGE_DEPENDS "libc6 (>= 2.36), libjansson4 (>= 2.14)")
set(CPACK_DEBIAN_LIBZORV1_PACKAGE_RECOMMENDS "zorvd")
set(CPACK_DEBIAN_LIBZORV1_DESCRIPTION "C interface of a NAS's VPN service's record daemon
What VPN servers, their plugins and PAM modules call to record logins and
logouts and to count failed logins.")
set(CPACK_DEBIAN_LIBZORV1_PACKAGE_CONTROL_EXTRA
    "${package}/debian/libzorv1/triggers;${package}/debian/libzorv1/shlibs")
set(CPACK_DEBIAN_LIBZORV1_PACKAGE_CONTROL_STRICT_PERMISSION ON)

set(CPACK_DEBIAN_LIBPAM-ZORV_PACKAGE_NAME libpam-zorv)
set(CPACK_DEBIAN_LIBPAM-ZORV_PACKAGE_SECTION admin)
set(CPACK_DEBIAN_LIBPAM-ZORV_PACKAGE_DEPENDS
    "libc6 (>= 2.36), libpam0g (>= 1.5), libzorv1 (>= ${PROJECT_VERSION})")
set(CPACK_DEBIAN_LIBPAM-ZORV_PACKAGE_RECOMMENDS "zorvd")
set(CPACK_DEBIAN_LIBPAM-ZORV_DESCRIPTION "PAM module that blocks users after failed VPN logins
Counts and records the failed logins of VPN servers that check passwords
through PAM, and refuses whom the VPN service's record daemon has blocked.")
set(CPACK_DEBIAN_LIBPAM-ZORV_PACKAGE_CONTROL_EXTRA "${package}/debian/libpam-zorv/prerm")
set(CPACK_DEBIAN_LIBPAM-ZORV_PACKAGE_CONTROL_STRICT_PERMISSION ON)

set(CPACK_DEBIAN_ZORV-WIREGUARD_PACKAGE_NAME zorv-wireguard)
set(CPACK_DEBIAN_ZORV-WIREGUARD_PACKAGE_SECTION net)
set(CPACK_DEBIAN_ZORV-WIREGUARD_PACKAGE_DEPENDS "libc6 (>= 2.36), libgcc-s1 (>= 3.5), libstdc++6 (>= 12), \
libjansson4 (>= 2.14), libfmt9 (>= 9.1), libzorv1 (>= ${PROJECT_VERSION}), wireguard-tools")
set(CPACK_DEBIAN_ZORV-WIREGUARD_PACKAGE_RECOMMENDS "zorvd")
set(CPACK_DEBIAN_ZORV-WIREGUARD_DESCRIPTION "Recorder of the sessions of WireGuard interfaces
Watches the peers of a WireGuard server's interfaces and has the VPN service's
record daemon keep who was there, from when to when, and what was transferred.")
set(CPACK_DEBIAN_ZORV-WIREGUARD_PACKAGE_CONTROL_EXTRA
    "${package}/debian/zorv-wireguard/postinst;${package}/debian/zorv-wireguard/prerm")
set(CPACK_DEBIAN_ZORV-WIREGUARD_PACKAGE_CONTROL_STRICT_PERMISSION ON)

set(CPACK_DEBIAN_ZORV-SHIP_PACKAGE_NAME zorv-ship)
set(CPACK_DEBIAN_ZORV-SHIP_PACKAGE_SECTION net)
set(CPACK_DEBIAN_ZORV-SHIP_PACKAGE_DEPENDS
    "libc6 (>= 2.36), libgcc-s1 (>= 3.5), libstdc++6 (>= 12), libfmt9 (>= 9.1), libpq5 (>= 15)")
set(CPACK_DEBIAN_ZORV-SHIP_PACKAGE_RECOMMENDS "zorvd, postgresql-client")
set(CPACK_DEBIAN_ZORV-SHIP_DESCRIPTION "Ships a NAS's VPN connection logs to PostgreSQL
Reads new rows of the logs that the VPN service's record daemon keeps and
writes each once to a PostgreSQL database, which keeps those of many NASes.")
set(CPACK_DEBIAN_ZORV-SHIP_PACKAGE_CONTROL_EXTRA
    "${package}/debian/zorv-ship/postinst;${package}/debian/zorv-ship/prerm")
set(CPACK_DEBIAN_ZORV-SHIP_PACKAGE_CONTROL_STRICT_PERMISSION ON)

set(CPACK_DEBIAN_ZORV-PPP_PACKAGE_NAME zorv-ppp)
set(CPACK_DEBIAN_ZORV-PPP_PACKAGE_SECTION net)
set(CPACK_DEBIAN_ZORV-PPP_PACKAGE_DEPENDS "libc6 (>= 2.36), libzorv1 (>= ${PROJECT_VERSION}), \
ppp (>= ${ZORV_PPPD_VERSION}), ppp (<< ${ZORV_PPPD_VERSION}.0~)")
set(CPACK_DEBIAN_ZORV-PPP_PACKAGE_RECOMMENDS "zorvd")
set(CPACK_DEBIAN_ZORV-PPP_DESCRIPTION "Plugin of pppd that records PPTP and L2TP logins
Records logins, logouts and failed logins of PPTP and L2TP servers that run
pppd, counts the failures and refuses whom the VPN service's record daemon has
blocked.")
set(CPACK_DEBIAN_ZORV-PPP_PACKAGE_CONTROL_EXTRA "${package}/debian/zorv-ppp/prerm")
set(CPACK_DEBIAN_ZORV-PPP_PACKAGE_CONTROL_STRICT_PERMISSION ON)
include(CPack)
