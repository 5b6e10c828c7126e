# Debian packages of what is installed, one for each component, by CPack (tools/package). The tool and the Python package
# depend on the very libraries that they are built with.
set(CPACK_GENERATOR DEB)
set(CPACK_VERBATIM_VARIABLES ON)
set(CPACK_STRIP_FILES ON)
set(CPACK_PACKAGE_CONTACT "korimg developers")
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ
                                                WORLD_EXECUTE)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${PROJECT_BINARY_DIR}/korimg ${PROJECT_BINARY_DIR}/session)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)

file(READ ${PROJECT_SOURCE_DIR}/NOTICE notice)
file(CONFIGURE OUTPUT debian/copyright CONTENT
"Copyright: korimg developers
License: Apache-2.0

On Debian systems, the text of the Apache License 2.0 is in /usr/share/common-licenses/Apache-2.0.

${notice}")

# korimg_debian_package(COMPONENT NAME SECTION SUMMARY [DEPENDS ...]): a package, and what it depends on beside the
# libraries that its programs are linked with.
function(korimg_debian_package component name section summary)
  cmake_parse_arguments(ARG "" "" DEPENDS ${ARGN})
  install(FILES ${CMAKE_CURRENT_BINARY_DIR}/debian/copyright DESTINATION share/doc/${name} COMPONENT ${component}
    EXCLUDE_FROM_ALL)
  string(TOUPPER ${component} key)
  list(JOIN ARG_DEPENDS ", " depends)
  list(APPEND CPACK_COMPONENTS_ALL ${component})
  set(CPACK_COMPONENTS_ALL ${CPACK_COMPONENTS_ALL} PARENT_SCOPE)
  set(CPACK_DEBIAN_${key}_PACKAGE_NAME ${name} PARENT_SCOPE)
  set(CPACK_DEBIAN_${key}_PACKAGE_SECTION ${section} PARENT_SCOPE)
  set(CPACK_DEBIAN_${key}_DESCRIPTION "${summary}" PARENT_SCOPE)
  set(CPACK_DEBIAN_${key}_PACKAGE_DEPENDS "${depends}" PARENT_SCOPE)
endfunction()

set(libraries "libkorimg0 (= ${PROJECT_VERSION})")
set(so ${PROJECT_VERSION_MAJOR}.${PROJECT_VERSION_MINOR})
file(CONFIGURE OUTPUT debian/shlibs CONTENT "libkorimg ${so} ${libraries}\nlibkorimg_session ${so} ${libraries}\n")
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA ${CMAKE_CURRENT_BINARY_DIR}/debian/shlibs)
korimg_debian_package(runtime libkorimg0 libs "The libraries, and the program that decodes files for them.")
korimg_debian_package(development libkorimg-dev libdevel "Headers of the libraries, and what CMake finds them by."
  DEPENDS ${libraries} nlohmann-json3-dev)
if(KORIMG_BUILD_APP)
  korimg_debian_package(tool korimg science "The command-line tool." DEPENDS ${libraries})
endif()
if(KORIMG_BUILD_PYTHON)
  math(EXPR next "${Python_VERSION_MINOR} + 1")
  korimg_debian_package(python python3-korimg python "The Python package."
    DEPENDS ${libraries} "python3 (>= 3.${Python_VERSION_MINOR}~)" "python3 (<< 3.${next}~)"
            "python3-numpy (>= 1:1.24)")
  set(CPACK_DEBIAN_PYTHON_PACKAGE_CONTROL_EXTRA ${PROJECT_SOURCE_DIR}/python/debian/postinst
                                                ${PROJECT_SOURCE_DIR}/python/debian/prerm)
endif()
include(CPack)
