# The znv manual page and shell completion, and what they need from the build.
# Included from the top-level CMakeLists.txt once the `znv` target exists.

include(GNUInstallDirs)

# `znv --version` names the release; libcurl's version is asked at run time.
target_compile_definitions(znv PRIVATE ZNV_VERSION="${PROJECT_VERSION}")
target_link_libraries(znv PRIVATE CURL::libcurl)

# The manual page is made from `znv --help` and `znv --version`, so it never
# drifts from the program.
find_program(ZNV_HELP2MAN help2man)
if(ZNV_HELP2MAN)
  set(ZNV_MAN_PAGE ${CMAKE_CURRENT_BINARY_DIR}/znv.1)
  add_custom_command(
    OUTPUT ${ZNV_MAN_PAGE}
    COMMAND ${CMAKE_COMMAND} -E env HOME=${CMAKE_CURRENT_BINARY_DIR}
      ${ZNV_HELP2MAN} --no-info --section=1
      "--name=upload files to and download files from the storage service"
      --help-option=--help-all
      --output=${ZNV_MAN_PAGE} $<TARGET_FILE:znv>
    DEPENDS znv
    COMMENT "Generating the znv manual page"
    VERBATIM)
  add_custom_target(znv-man ALL DEPENDS ${ZNV_MAN_PAGE})
  install(FILES ${ZNV_MAN_PAGE} DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
else()
  message(STATUS "help2man not found: no znv manual page (./dev.sh deps installs it)")
endif()

install(FILES ${PROJECT_SOURCE_DIR}/apps/znv/completion/znv.bash
  DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions RENAME znv)
install(FILES ${PROJECT_SOURCE_DIR}/apps/znv/completion/_znv
  DESTINATION ${CMAKE_INSTALL_DATADIR}/zsh/site-functions)
