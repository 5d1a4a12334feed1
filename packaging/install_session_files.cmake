# Runs at install time, when the prefix is final (cmake --install --prefix may change it):
# writes the systemd user unit and the XDG autostart entry with the installed gateway's path.
# Set by the caller: TARN_PACKAGING_SOURCE, TARN_PACKAGING_STAGING, TARN_INSTALL_DIR,
# TARN_SYSTEMD_USER_UNIT_DIR, TARN_XDG_AUTOSTART_DIR.

function(tarn_absolute out path)
  if(IS_ABSOLUTE "${path}")
    set(${out} "${path}" PARENT_SCOPE)
  else()
    set(${out} "${CMAKE_INSTALL_PREFIX}/${path}" PARENT_SCOPE)
  endif()
endfunction()

tarn_absolute(install_dir "${TARN_INSTALL_DIR}")
set(TARN_GATEWAY_PATH "${install_dir}/tarngateway")
tarn_absolute(unit_dir "${TARN_SYSTEMD_USER_UNIT_DIR}")
if(TARN_XDG_AUTOSTART_DIR)
  tarn_absolute(autostart_dir "${TARN_XDG_AUTOSTART_DIR}")
elseif(CMAKE_INSTALL_PREFIX MATCHES "^/usr(/local)?/?$")
  # Desktops read autostart entries from /etc/xdg only (XDG_CONFIG_DIRS).
  set(autostart_dir "/etc/xdg/autostart")
else()
  set(autostart_dir "${CMAKE_INSTALL_PREFIX}/etc/xdg/autostart")
endif()

configure_file("${TARN_PACKAGING_SOURCE}/tarngateway.service.in"
               "${TARN_PACKAGING_STAGING}/tarngateway.service" @ONLY)
configure_file("${TARN_PACKAGING_SOURCE}/tarngateway.desktop.in"
               "${TARN_PACKAGING_STAGING}/tarngateway.desktop" @ONLY)
file(INSTALL "${TARN_PACKAGING_STAGING}/tarngateway.service" DESTINATION "${unit_dir}")
file(INSTALL "${TARN_PACKAGING_STAGING}/tarngateway.desktop" DESTINATION "${autostart_dir}")
