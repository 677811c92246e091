# The file managers' folder menus: each runs `velmora-dedup --action`, which asks the running
# application over the session bus (or runs the engine itself) and shows the answer as a
# notification. Whoever installs the application includes this file; including it twice installs
# them once.
include_guard(GLOBAL)
include(GNUInstallDirs)
set(_menus ${CMAKE_CURRENT_LIST_DIR})

# Dolphin reads service menus from share/kio/servicemenus and runs only those marked executable.
install(FILES ${_menus}/velmora-dedup-folder-actions.desktop
        DESTINATION ${CMAKE_INSTALL_DATADIR}/kio/servicemenus
        PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)

# Nemo reads actions system-wide.
install(DIRECTORY ${_menus}/nemo/ DESTINATION ${CMAKE_INSTALL_DATADIR}/nemo/actions FILES_MATCHING PATTERN "*.nemo_action")

# Nautilus reads scripts only from the user's own ~/.local/share/nautilus/scripts: they are
# installed beside the application for the user to link there (see the README).
install(PROGRAMS "${_menus}/nautilus/Find Identical Files" "${_menus}/nautilus/Reclaim Identical Files"
                 "${_menus}/nautilus/What Deleting a Folder Frees"
        DESTINATION ${CMAKE_INSTALL_DATADIR}/velmora-dedup/nautilus-scripts)

# Dolphin's executable bit on a .desktop file is what Debian's checker would otherwise warn about.
install(FILES ${_menus}/lintian-overrides DESTINATION ${CMAKE_INSTALL_DATADIR}/lintian/overrides
        RENAME velmora-dedup)
