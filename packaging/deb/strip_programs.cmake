# Runs at package time: the install folder's programs and plug-ins are copied as built (with
# debug information); the package ships them stripped, as Debian's own packages are.
# Set by the caller: TARN_STRIP, TARN_DEB_DIR.
file(GLOB tarn_files "$ENV{DESTDIR}${CMAKE_INSTALL_PREFIX}/${TARN_DEB_DIR}/*")
foreach(file IN LISTS tarn_files)
  if(IS_DIRECTORY "${file}" OR IS_SYMLINK "${file}")
    continue()
  endif()
  file(READ "${file}" magic LIMIT 4 HEX)
  if(magic STREQUAL "7f454c46")
    execute_process(COMMAND "${TARN_STRIP}" --strip-unneeded --remove-section=.comment
                            --remove-section=.note "${file}"
                    COMMAND_ERROR_IS_FATAL ANY)
  endif()
endforeach()
