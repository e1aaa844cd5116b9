# What lies beside the binary on a box. The absolute places are those where the daemon, the bus, sudo
# and the supervisor look, whatever the prefix is; DESTDIR goes before all of them.
install(TARGETS nimbrelc RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
configure_file(data/man/nimbrelc.8.in nimbrelc.8 @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/nimbrelc.8 DESTINATION ${CMAKE_INSTALL_MANDIR}/man8)
install(FILES data/sysusers.d/nimbrelc.conf DESTINATION /usr/lib/sysusers.d)
install(DIRECTORY data/interfaces/ DESTINATION ${CMAKE_INSTALL_DATADIR}/dbus-1/interfaces)
install(FILES data/dbus/com.kelvanto.nimbrel.conf DESTINATION /usr/share/dbus-1/system.d)
install(FILES data/sudoers.d/nimbrelc DESTINATION /etc/sudoers.d PERMISSIONS OWNER_READ GROUP_READ)
install(PROGRAMS data/s6/nimbrelc/run data/s6/nimbrelc/finish DESTINATION /etc/s6/sv/nimbrelc)
install(FILES data/default_config/nimbrelc.json DESTINATION /opt/app/default_config)
install(FILES data/locales.json DESTINATION /opt/app)
install(FILES data/nimbrelc.schema.json DESTINATION ${CMAKE_INSTALL_DATADIR}/nimbrelc)
