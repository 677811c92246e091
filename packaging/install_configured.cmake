# Run by `cmake --install` and CPack: writes the systemd user unit and the autostart template
# with the path dedup is being installed to, and installs them. Set by the caller: DEDUP_BINDIR and
# DEDUP_DATADIR (GNUInstallDirs' values), DEDUP_TEMPLATES (the .in files' folder) and
# DEDUP_CONFIGURED (a folder for the written files).
if(IS_ABSOLUTE "${DEDUP_BINDIR}")
  set(bindir "${DEDUP_BINDIR}")
else()
  set(bindir "${CMAKE_INSTALL_PREFIX}/${DEDUP_BINDIR}")
endif()

# The path stands inside double quotes in both files; these characters would end the quotes or
# mean something there (% is a systemd specifier, $ and ` the shell's).
if(bindir MATCHES "[\"$`%\\\\]")
  message(FATAL_ERROR "dedup cannot be installed in ${bindir}: the systemd unit and the autostart entry "
                      "cannot name a folder whose path holds \" $ ` % or a backslash. Choose another prefix.")
endif()

# One folder per destination: an install and a package build at the same time must not hand each
# other their files.
string(MD5 destination "$ENV{DESTDIR}|${CMAKE_INSTALL_PREFIX}")
set(written "${DEDUP_CONFIGURED}/${destination}")
configure_file("${DEDUP_TEMPLATES}/dedup-auto.service.in" "${written}/dedup-auto.service" @ONLY)
configure_file("${DEDUP_TEMPLATES}/velmora-dedup-auto.desktop.in" "${written}/velmora-dedup-auto.desktop" @ONLY)
# systemd looks for user units in <prefix>/lib/systemd/user, never in a multiarch library folder.
file(INSTALL "${written}/dedup-auto.service" DESTINATION "${CMAKE_INSTALL_PREFIX}/lib/systemd/user")
file(INSTALL "${written}/velmora-dedup-auto.desktop" DESTINATION "${CMAKE_INSTALL_PREFIX}/${DEDUP_DATADIR}/velmora-dedup")
