# Debian packages, one for each component of the installation. ./dev package builds and checks them; from a build with
# the prefix /usr, cpack alone does too.

set(PROCWARDEN_MAINTAINER "Procwarden Maintainers <maintainers@procwarden.example>" CACHE STRING
    "Who answers for the packages: the field Maintainer")
set(PROCWARDEN_PACKAGE_RELEASE 1 CACHE STRING "Revision of the packages, behind the version")

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_DIRECTORY ${PROJECT_SOURCE_DIR}/build/packages)
set(CPACK_PACKAGING_INSTALL_PREFIX ${CMAKE_INSTALL_PREFIX}) # the one that units and activation files name
set(CPACK_SET_DESTDIR ON)                                   # /etc is no part of the prefix
set(CPACK_STRIP_FILES ON)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
    OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)

set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "") # the first line of each description below

set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL service helper tools development)
set(CPACK_COMPONENTS_GROUPING IGNORE)

set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_MAINTAINER ${PROCWARDEN_MAINTAINER})
set(CPACK_DEBIAN_PACKAGE_RELEASE ${PROCWARDEN_PACKAGE_RELEASE})
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION TRUE)
set(procwarden_revision "${PROJECT_VERSION}-${PROCWARDEN_PACKAGE_RELEASE}")

set(scripts ${PROJECT_SOURCE_DIR}/packaging)

set(CPACK_DEBIAN_SERVICE_PACKAGE_NAME procwarden)
set(CPACK_DEBIAN_SERVICE_PACKAGE_SECTION admin)
set(CPACK_DEBIAN_SERVICE_PACKAGE_SHLIBDEPS ON)
# The helper and the service speak an interface of their own; the two are replaced together.
set(CPACK_DEBIAN_SERVICE_PACKAGE_DEPENDS
    "procwarden-helper (= ${procwarden_revision}), dbus, dbus-user-session, firejail")
set(CPACK_DEBIAN_SERVICE_PACKAGE_RECOMMENDS "shared-mime-info, xdg-dbus-proxy, xdg-desktop-portal")
set(CPACK_DEBIAN_SERVICE_PACKAGE_SUGGESTS "procwarden-tools, upower")
set(CPACK_DEBIAN_SERVICE_PACKAGE_CONTROL_EXTRA
    "${scripts}/service/conffiles;${scripts}/service/postinst;${scripts}/service/prerm;${scripts}/service/postrm")
set(CPACK_COMPONENT_SERVICE_DESCRIPTION
"application runtime service of a mobile device
Starts applications in their sandboxes, follows every process that belongs to
them, and keeps them in control groups that follow their state, so that an
application that nobody sees is frozen and costs nothing. It runs their
background tasks, passes intents and notifications between them, and gives
memory back before the kernel has to.

It needs version 1 control group hierarchies with the controllers cpu, freezer
and memory. Nothing runs before it is enabled for a user:
systemctl enable procwarden@UID.service")

set(CPACK_DEBIAN_HELPER_PACKAGE_NAME procwarden-helper)
set(CPACK_DEBIAN_HELPER_PACKAGE_SECTION admin)
set(CPACK_DEBIAN_HELPER_PACKAGE_SHLIBDEPS ON)
# The groups of the bus policies are made by systemd-sysusers.
set(CPACK_DEBIAN_HELPER_PACKAGE_DEPENDS "dbus, systemd | systemd-standalone-sysusers | systemd-sysusers")
set(CPACK_DEBIAN_HELPER_PACKAGE_CONTROL_EXTRA "${scripts}/helper/postinst;${scripts}/helper/prerm;${scripts}/helper/postrm")
set(CPACK_COMPONENT_HELPER_DESCRIPTION
"privileged side of the application runtime service
Hands a part of the version 1 control group hierarchies over to the user whose
application runtime service asks for it. The system bus starts it at the first
call; it does nothing else with the rights of root.")

set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME procwarden-tools)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION utils)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_TOOLS_PACKAGE_RECOMMENDS "procwarden")
set(CPACK_COMPONENT_TOOLS_DESCRIPTION
"command line client of the application runtime service
procwardenctl tells which applications and tasks run, what ended and why, and
what a start would do; it starts and stops applications and tasks and invokes
intents. Tables or JSON, with completion for bash and zsh.")

set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME procwarden-dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION devel)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_ARCHITECTURE all)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SUGGESTS "python3-dbusmock")
set(CPACK_COMPONENT_DEVELOPMENT_DESCRIPTION
"interfaces of the application runtime service
Documented introspection data of every D-Bus interface that the application
runtime service offers or calls, for generating clients, and a mock of the
service for applications' tests.")

# What Debian wants in every package and no other installation does, once all components lie in place.
set(CPACK_PRE_BUILD_SCRIPTS ${PROJECT_SOURCE_DIR}/packaging/complete.cmake)
set(CPACK_PROCWARDEN_SOURCE_DIR ${PROJECT_SOURCE_DIR})

include(CPack)
