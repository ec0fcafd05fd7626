# Run by CPack on its staging tree before it packs, doing what dh_strip and
# dh_lintian do for a debhelper package: strips the programs, with the
# compiler's notes (.comment, .note), and adds the lintian overrides.
file(GLOB programs "${CPACK_TEMPORARY_INSTALL_DIRECTORY}/usr/bin/*")
foreach(program IN LISTS programs)
  execute_process(COMMAND ${CPACK_VARNOCK_STRIP} --remove-section=.comment --remove-section=.note
                          ${program}
                  COMMAND_ERROR_IS_FATAL ANY)
endforeach()
set(overrides ${CPACK_TEMPORARY_INSTALL_DIRECTORY}/usr/share/lintian/overrides)
file(MAKE_DIRECTORY ${overrides})
file(COPY_FILE ${CPACK_VARNOCK_SOURCE_DIR}/lintian-overrides ${overrides}/varnock)
