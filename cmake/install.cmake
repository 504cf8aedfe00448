# What `cmake --install` puts where, in two components:
#   plugin    libcatra.so alone, into CATRA_PLUGIN_DIR: what a terminal's
#             image takes. A firmware build installs it alone:
#               DESTDIR=<image> cmake --install <build> --component plugin
#   terminal  catra-terminal with the stand-in host library it runs on, its
#             example configuration and scripts, its guides and its manual
#             page; catra-simulator with its manual page.
# Release builds (Release, RelWithDebInfo, MinSizeRel) install stripped
# binaries; a Debug build keeps its symbols.

# Strips an installed binary (`path` relative to the install prefix, or
# absolute) at install time, unless the build is a debug one.
function(catra_install_strip component path)
  if(NOT CMAKE_STRIP)
    return()
  endif()
  if(NOT IS_ABSOLUTE "${path}")
    set(path "\${CMAKE_INSTALL_PREFIX}/${path}")
  endif()
  install(CODE "
    if(CMAKE_INSTALL_CONFIG_NAME MATCHES \"^(Release|RelWithDebInfo|MinSizeRel)$\")
      execute_process(COMMAND \"${CMAKE_STRIP}\" --strip-unneeded
                              --remove-section=.comment --remove-section=.note
                              \"\$ENV{DESTDIR}${path}\"
                      COMMAND_ERROR_IS_FATAL ANY)
    endif()" COMPONENT ${component})
endfunction()

install(TARGETS catra LIBRARY DESTINATION "${CATRA_PLUGIN_DIR}" COMPONENT plugin)
catra_install_strip(plugin "${CATRA_PLUGIN_DIR}/libcatra.so")

if(CATRA_BUILD_TERMINAL)
  # The stand-in host is a shared library that the terminal exports to the
  # plug-in: it goes into a private folder, found through the program's
  # run path relative to its own folder.
  set(catra_terminal_libdir "${CMAKE_INSTALL_LIBDIR}/catra-terminal")
  file(RELATIVE_PATH catra_terminal_rpath "${CMAKE_INSTALL_FULL_BINDIR}"
       "${CMAKE_INSTALL_FULL_LIBDIR}/catra-terminal")
  set_target_properties(catra-terminal PROPERTIES INSTALL_RPATH "$ORIGIN/${catra_terminal_rpath}")
  install(TARGETS catra-terminal RUNTIME DESTINATION "${CMAKE_INSTALL_BINDIR}" COMPONENT terminal)
  install(TARGETS ac_host LIBRARY DESTINATION "${catra_terminal_libdir}" COMPONENT terminal)
  catra_install_strip(terminal "${CMAKE_INSTALL_BINDIR}/catra-terminal")
  catra_install_strip(terminal "${catra_terminal_libdir}/$<TARGET_FILE_NAME:ac_host>")

  install(DIRECTORY examples/ DESTINATION "${CMAKE_INSTALL_DATADIR}/catra-terminal/examples"
          COMPONENT terminal FILES_MATCHING PATTERN "*.jsonl" PATTERN "*.ini")
  install(FILES docs/terminal.md docs/integration.md
          DESTINATION "${CMAKE_INSTALL_DATAROOTDIR}/doc/catra-terminal" COMPONENT terminal)

  # catra-simulator: the simulated turnstile controller on a real line (it
  # needs no library of the project's at run time).
  install(TARGETS catra-simulator RUNTIME DESTINATION "${CMAKE_INSTALL_BINDIR}" COMPONENT terminal)
  catra_install_strip(terminal "${CMAKE_INSTALL_BINDIR}/catra-simulator")
  install(FILES docs/simulator.md
          DESTINATION "${CMAKE_INSTALL_DATAROOTDIR}/doc/catra-terminal" COMPONENT terminal)

  # The manual pages, made from --help and --version.
  find_program(CATRA_HELP2MAN help2man)
  if(CMAKE_CROSSCOMPILING)
    message(STATUS "Cross-build: the programs are installed without their manual pages")
  elseif(CATRA_HELP2MAN)
    foreach(program_and_name
        "catra-terminal|the stand-in terminal of the turnstile plug-in"
        "catra-simulator|the simulated turnstile controller on a serial line")
      string(REPLACE "|" ";" program_and_name "${program_and_name}")
      list(GET program_and_name 0 program)
      list(GET program_and_name 1 name)
      set(catra_manpage "${CMAKE_CURRENT_BINARY_DIR}/terminal/${program}.1")
      add_custom_command(
        OUTPUT "${catra_manpage}.gz"
        COMMAND "${CATRA_HELP2MAN}" --no-info --section=1 "--name=${name}"
                "--output=${catra_manpage}" "$<TARGET_FILE:${program}>"
        COMMAND gzip -9nf "${catra_manpage}"
        DEPENDS ${program}
        COMMENT "Writing the manual page of ${program}"
        VERBATIM)
      add_custom_target(${program}-manpage ALL DEPENDS "${catra_manpage}.gz")
      install(FILES "${catra_manpage}.gz" DESTINATION "${CMAKE_INSTALL_MANDIR}/man1"
              COMPONENT terminal)
    endforeach()
  else()
    message(STATUS "help2man not found: the programs are installed without their manual pages")
  endif()
endif()
