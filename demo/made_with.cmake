# SPDX-License-Identifier: MIT
# Writes for each installed page which functions of the two libraries its program calls, as its object
# file says: the page shows them at its bottom. `readelf` is set by the script that includes this one.
set(root $ENV{DESTDIR}${CMAKE_INSTALL_PREFIX})

# Returns the names that match a pattern in the list of a file's dynamic symbols.
function(dynamic_symbols file pattern result)
  execute_process(COMMAND ${readelf} --dyn-syms --wide ${file} OUTPUT_VARIABLE symbols
                  COMMAND_ERROR_IS_FATAL ANY)
  string(REGEX MATCHALL "${pattern} [A-Za-z0-9_]+" found "${symbols}")
  list(TRANSFORM found REPLACE ".* " "")
  set(${result} ${found} PARENT_SCOPE)
endfunction()

set(offered "")
file(GLOB libraries ${root}/opt/lib/libcorvel*.so.*)
foreach(library IN LISTS libraries)
  dynamic_symbols(${library} "FUNC +GLOBAL +DEFAULT +[0-9]+" functions)
  list(APPEND offered ${functions})
endforeach()

file(MAKE_DIRECTORY ${root}/www/made-with)
file(GLOB programs ${root}/www/cgi-bin/*)
foreach(program IN LISTS programs)
  dynamic_symbols(${program} "UND" used)
  set(called "")
  foreach(function IN LISTS used)
    list(FIND offered ${function} position)
    if(position GREATER -1)
      list(APPEND called "${function}()")
    endif()
  endforeach()
  list(SORT called CASE INSENSITIVE)
  list(JOIN called ", " text)
  cmake_path(GET program FILENAME name)
  file(WRITE ${root}/www/made-with/${name} "${text}\n")
endforeach()
