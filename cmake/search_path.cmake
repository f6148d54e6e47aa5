# Where programs and libraries search for libraries. An installed tree may stand anywhere: they find each
# other beside themselves. In the build tree they search in the same way, and links lead to where the
# libraries are made: if CMake changed the path at installation, the one before would end in ":", which
# means the working directory.
if(CMAKE_SKIP_INSTALL_RPATH)
  return()
endif()

# tsmail_search(<target> <directory>). One directory: the loader asks for twenty below each at every start.
function(tsmail_search target directory)
  if(TARGET ${target})
    set_target_properties(${target} PROPERTIES BUILD_WITH_INSTALL_RPATH ON INSTALL_RPATH ${directory})
  endif()
endfunction()
foreach(library IN ITEMS tsmail tssupport kqfquery)
  tsmail_search(${library} "$ORIGIN")
endforeach()
tsmail_search(tsmail_tool "$ORIGIN/../${CMAKE_INSTALL_LIBDIR}")

# tsmail_link_library(<path> <directory>): a link to a library of the build tree.
function(tsmail_link_library path directory)
  cmake_path(GET path FILENAME name)
  file(MAKE_DIRECTORY ${directory})
  file(RELATIVE_PATH target ${directory} ${PROJECT_BINARY_DIR}/${path})
  file(CREATE_LINK ${target} ${directory}/${name} SYMBOLIC)
endfunction()

set(beside_the_tool ${PROJECT_BINARY_DIR}/${CMAKE_INSTALL_LIBDIR})
tsmail_link_library(libtsmail.so.${PROJECT_VERSION_MAJOR} ${beside_the_tool})
if(TSMAIL_BUNDLED_SUPPORT)
  foreach(library IN ITEMS libtssupport libkqfquery)
    tsmail_link_library(support/${library}.so.${PROJECT_VERSION_MAJOR} ${beside_the_tool})
    tsmail_link_library(support/${library}.so.${PROJECT_VERSION_MAJOR} ${PROJECT_BINARY_DIR})
  endforeach()
endif()
