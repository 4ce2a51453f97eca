# Run by CPack (CPACK_PRE_BUILD_SCRIPTS) after it has installed each
# component into its staging directory below CPACK_TEMPORARY_DIRECTORY, with
# the prefix CPACK_PACKAGING_INSTALL_PREFIX (/usr), and before it makes the
# packages: moves what Debian keeps outside /usr to its place there.
# - <prefix>/etc/ to /etc/: configuration files.
# - <prefix>/lib/systemd/ to /lib/systemd/: systemd units, where Debian 12's
#   packages put them (its systemd reads both /lib and /usr/lib).
# A directory left empty by the move is removed, so that no package holds an
# empty one.
set(prefix "${CPACK_PACKAGING_INSTALL_PREFIX}")
set(moves etc lib/systemd)

# Removes `dir` and then each parent up to `top` while they are empty.
function(kdx_remove_empty dir top)
  while(NOT dir STREQUAL top)
    file(GLOB left "${dir}/*")
    if(left)
      return()
    endif()
    file(REMOVE_RECURSE "${dir}")
    get_filename_component(dir "${dir}" DIRECTORY)
  endwhile()
endfunction()

file(GLOB components LIST_DIRECTORIES true "${CPACK_TEMPORARY_DIRECTORY}/*")
foreach(component IN LISTS components)
  foreach(move IN LISTS moves)
    set(from "${component}${prefix}/${move}")
    set(to "${component}/${move}")
    if(NOT IS_DIRECTORY "${from}")
      continue()
    endif()
    if(EXISTS "${to}")
      message(FATAL_ERROR "${to} is installed both below ${prefix} and outside it")
    endif()
    get_filename_component(parent "${to}" DIRECTORY)
    file(MAKE_DIRECTORY "${parent}")
    file(RENAME "${from}" "${to}")
    get_filename_component(emptied "${from}" DIRECTORY)
    kdx_remove_empty("${emptied}" "${component}")
  endforeach()
endforeach()
