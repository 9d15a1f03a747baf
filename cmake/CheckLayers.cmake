# Checks that every library includes only the folders it depends on.
#   cmake -DSOURCE_DIR=<top of the tree> -P cmake/CheckLayers.cmake
# Each quoted include "folder/..." of a source in a library folder must name that folder or one the
# library may use. The value layer includes no Lua header, and outside its linux/ folders no header
# of the operating system's threads, locale or system calls. Fails listing every violation.

if(NOT SOURCE_DIR)
  message(FATAL_ERROR "SOURCE_DIR not set")
endif()

# Library folder, then the folders it may include (besides itself).
set(layers
  "values/base"
  "values/sync|values/base"
  "values/model|values/base,values/sync"
  "values/tags|values/base,values/sync,values/model"
  "datalua|values/base,values/sync,values/model"
  "objects|values/base,values/sync,values/model,values/tags"
  "remote|values/base,values/sync,values/model,values/tags,objects"
  "languages/lua|values/base,values/sync,values/model,values/tags,objects,remote")
set(known_folders values/base values/sync values/model values/tags datalua objects remote languages/lua testsupport)
# System headers the value layer keeps inside linux/ (and that its tests may still use).
set(system_only "pthread\\.h|unistd\\.h|langinfo\\.h|locale\\.h|clocale|sys/[a-z_]+\\.h|fcntl\\.h|ifaddrs\\.h|netdb\\.h|arpa/inet\\.h|netinet/in\\.h")
set(lua_headers "lua\\.h|lua\\.hpp|lualib\\.h|lauxlib\\.h|luajit\\.h|luaconf\\.h")

set(violations "")
foreach(layer ${layers})
  string(REPLACE "|" ";" parts "${layer}")
  list(GET parts 0 folder)
  list(LENGTH parts n)
  set(allowed ${folder} testsupport)
  if(n GREATER 1)
    list(GET parts 1 deps)
    string(REPLACE "," ";" deps "${deps}")
    list(APPEND allowed ${deps})
  endif()
  file(GLOB_RECURSE sources RELATIVE ${SOURCE_DIR} ${SOURCE_DIR}/${folder}/*.h ${SOURCE_DIR}/${folder}/*.cpp)
  foreach(source ${sources})
    # Files of a deeper library folder are checked under their own entry.
    set(owner "")
    foreach(other ${known_folders})
      string(LENGTH "${other}" len)
      string(SUBSTRING "${source}" 0 ${len} head)
      if(head STREQUAL other)
        set(owner ${other})
      endif()
    endforeach()
    if(NOT owner STREQUAL folder)
      continue()
    endif()
    file(STRINGS ${SOURCE_DIR}/${source} lines REGEX "^[ \t]*#[ \t]*include")
    foreach(line ${lines})
      if(line MATCHES "#[ \t]*include[ \t]*\"([^\"]+)/[^/\"]+\"")
        set(included "${CMAKE_MATCH_1}")
        set(ok FALSE)
        foreach(dir ${allowed})
          if(included STREQUAL dir OR included MATCHES "^${dir}/")
            set(ok TRUE)
          endif()
        endforeach()
        if(NOT ok)
          list(JOIN allowed ", " allowed_text)
          list(APPEND violations "${source}: ${line} (may use: ${allowed_text})")
        endif()
      endif()
      if(folder MATCHES "^values/" OR folder STREQUAL "objects")
        if(line MATCHES "[<\"](${lua_headers})[>\"]")
          list(APPEND violations "${source}: ${line} (Lua headers belong to languages/lua)")
        endif()
      endif()
      if(folder MATCHES "^values/" AND NOT source MATCHES "/linux/" AND NOT source MATCHES "Test\\.cpp$")
        if(line MATCHES "<(${system_only})>")
          list(APPEND violations "${source}: ${line} (system headers belong in linux/)")
        endif()
      endif()
    endforeach()
  endforeach()
endforeach()

if(violations)
  list(LENGTH violations count)
  list(JOIN violations "\n  " text)
  message(FATAL_ERROR "${count} include(s) cross the layers:\n  ${text}")
endif()
message(STATUS "Layer check: every include follows the dependencies")
