# SPDX-License-Identifier: Apache-2.0
# Copies a test program and the libraries it links into a directory of its
# own, without libiqdbgmgr.so (a library given by its SONAME link is copied as
# a file of that name), and points every run path that reached the build's
# library directory at the copies instead: there dlopen cannot find the
# manager.
#   cmake -DDESTINATION=<dir> -DLIBRARY_DIR=<dir> -P copy_without_manager.cmake -- <files>
cmake_minimum_required(VERSION 3.21)
file(MAKE_DIRECTORY ${DESTINATION})
set(copying FALSE)
math(EXPR last "${CMAKE_ARGC} - 1")
foreach(i RANGE ${last})
  set(path "${CMAKE_ARGV${i}}")
  if(copying)
    get_filename_component(name ${path} NAME)
    file(READ_ELF ${path} RUNPATH runpath)
    file(COPY_FILE ${path} ${DESTINATION}/${name})
    if(LIBRARY_DIR IN_LIST runpath)
      file(RPATH_CHANGE FILE ${DESTINATION}/${name} OLD_RPATH ${LIBRARY_DIR} NEW_RPATH "$ORIGIN")
    endif()
  elseif(path STREQUAL "--")
    set(copying TRUE)
  endif()
endforeach()
