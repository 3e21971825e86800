# What is installed where. The package is made of it (scripts/package); "cmake --install" alone leaves out the user, the
# settings and the registration with systemd, which the operator's guide tells for machines without the package.

include(GNUInstallDirs)

set(unit_folder lib/systemd/system)
set(units quelm-opc-server.service quelm-opc-server.socket quelm-opc-server-objects.socket
          quelm-monitor.service)
list(TRANSFORM units PREPEND packaging/systemd/)

install(TARGETS Q5OPCServer quelm-monitor DESTINATION ${CMAKE_INSTALL_SBINDIR})
install(TARGETS iosctl quelmctl opcda DESTINATION ${CMAKE_INSTALL_BINDIR})
install(PROGRAMS scripts/load-schema DESTINATION ${CMAKE_INSTALL_BINDIR} RENAME quelm-load-schema)
install(FILES ${units} DESTINATION ${unit_folder})
install(FILES packaging/systemd/quelm-opc-server.sysusers DESTINATION lib/sysusers.d RENAME quelm-opc-server.conf)
install(FILES packaging/systemd/quelm-opc-server.tmpfiles DESTINATION lib/tmpfiles.d RENAME quelm-opc-server.conf)
foreach(section 1 5 8)
  file(GLOB pages CONFIGURE_DEPENDS packaging/man/*.${section})
  install(FILES ${pages} DESTINATION ${CMAKE_INSTALL_MANDIR}/man${section})
endforeach()
install(FILES schema/mariadb.sql schema/postgresql.sql schema/sqlite.sql schema/sqlserver.sql
  DESTINATION ${CMAKE_INSTALL_DATADIR}/quelm/schema)
install(FILES demo/site/configuration.sql demo/site/realtime.sql DESTINATION ${CMAKE_INSTALL_DATADIR}/quelm/demo)
install(DIRECTORY docs/ DESTINATION share/doc/quelm-opc-server)
install(FILES packaging/Quelm.ini packaging/dcom.conf packaging/monitor.conf packaging/prometheus-alerts.yml DESTINATION share/doc/quelm-opc-server/examples)
