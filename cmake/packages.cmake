# Debian packages of the three components; scripts/package makes them.
set(COMMON_DEVICE_ACCESS_MAINTAINER "Unset <root@localhost>"
    CACHE STRING "Maintainer of the Debian packages, as \"Name <address>\"")

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME common-device-access)
set(CPACK_PACKAGE_CONTACT ${COMMON_DEVICE_ACCESS_MAINTAINER})
set(CPACK_STRIP_FILES ON)
set(CPACK_COMPONENTS_ALL library dev)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${PROJECT_BINARY_DIR}/lib)
set(CPACK_DEBIAN_ENABLE_COMPONENT_DEPENDS ON)

set(CPACK_DEBIAN_LIBRARY_PACKAGE_NAME libcommon-device-access0)
set(CPACK_DEBIAN_LIBRARY_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_LIBRARY_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_LIBRARY_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_COMPONENT_LIBRARY_DESCRIPTION
    "${PROJECT_DESCRIPTION}
 UIO devices, PCI devices through sysfs, POD and POST logs, inventory.")

set(CPACK_DEBIAN_DEV_PACKAGE_NAME libcommon-device-access-dev)
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
set(CPACK_COMPONENT_DEV_DEPENDS library)
set(CPACK_COMPONENT_DEV_DESCRIPTION
    "${PROJECT_DESCRIPTION} (development files)
 Headers, static library, package files for pkg-config and CMake, manual pages, examples.")

if(COMMON_DEVICE_ACCESS_TOOLS)
    list(APPEND CPACK_COMPONENTS_ALL tools)
    set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME common-device-access-tools)
    set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION utils)
    set(CPACK_COMPONENT_TOOLS_DEPENDS library)
    set(CPACK_COMPONENT_TOOLS_DESCRIPTION
        "${PROJECT_DESCRIPTION} (tools)
 The command devaccess, and chassis-sim, which runs any program in a simulated chassis.")
endif()

include(CPack)
