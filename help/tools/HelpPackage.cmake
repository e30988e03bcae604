# The application's help package, built from the manual's source (resources/help/*.md) and the
# window's screenshots (docs/*.png): a folder "Help.TWwrite" beside the program in the build tree,
# installed under share/tanner-backup/. Also a header of the manual's bookmark numbers for the
# dialogs that open help at a bookmark.
find_package(Python3 REQUIRED COMPONENTS Interpreter)

set(TANNER_HELP_PACKAGE ${CMAKE_BINARY_DIR}/Help.TWwrite)
set(TANNER_HELP_BOOKMARKS_HEADER ${CMAKE_BINARY_DIR}/generated/help/BUHelpBookmarks.h)
file(GLOB TANNER_HELP_SOURCES CONFIGURE_DEPENDS ${CMAKE_SOURCE_DIR}/resources/help/*.md)
file(GLOB TANNER_HELP_PICTURES CONFIGURE_DEPENDS ${CMAKE_SOURCE_DIR}/docs/*.png)

add_custom_command(
  OUTPUT ${TANNER_HELP_PACKAGE}/document.txt ${TANNER_HELP_PACKAGE}/structure.xml ${TANNER_HELP_PACKAGE}/format.xml
         ${TANNER_HELP_BOOKMARKS_HEADER}
  COMMAND ${Python3_EXECUTABLE} ${CMAKE_CURRENT_LIST_DIR}/make_help_package.py
          ${CMAKE_SOURCE_DIR}/resources/help ${CMAKE_SOURCE_DIR}/docs ${TANNER_HELP_PACKAGE}
          --bookmarks-header ${TANNER_HELP_BOOKMARKS_HEADER}
  DEPENDS ${CMAKE_CURRENT_LIST_DIR}/make_help_package.py ${TANNER_HELP_SOURCES} ${TANNER_HELP_PICTURES}
  COMMENT "Building the help package Help.TWwrite"
  VERBATIM)
add_custom_target(help_package ALL DEPENDS ${TANNER_HELP_PACKAGE}/document.txt)

# The program reads the package beside itself: building the program builds the package.
# (The fuzz targets' build includes help/ without the program.)
function(tanner_help_package_dependency)
  if(TARGET tanner-backup)
    add_dependencies(tanner-backup help_package)
  endif()
endfunction()
cmake_language(DEFER DIRECTORY ${CMAKE_SOURCE_DIR} CALL tanner_help_package_dependency)
install(DIRECTORY ${TANNER_HELP_PACKAGE} DESTINATION share/tanner-backup)

# The bookmark numbers, for code that opens help at a bookmark:
#   target_link_libraries(T PRIVATE tanner_help_bookmarks), #include "help/BUHelpBookmarks.h".
add_library(tanner_help_bookmarks INTERFACE)
target_include_directories(tanner_help_bookmarks INTERFACE ${CMAKE_BINARY_DIR}/generated)
add_dependencies(tanner_help_bookmarks help_package)
