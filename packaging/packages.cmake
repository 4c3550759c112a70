# Debian packages, by cpack: the library, what one needs to build with it, and the tools. Those of 32 bits
# are packages of the 64-bit system too, which install beside the others.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME libk42mc-r)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_CONTACT "The k42mc_r developers <k42mc_r@localhost.localdomain>")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_COMPONENTS_ALL library dev tools)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE amd64)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
    OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)

set(library libk42mc-r${PROJECT_VERSION_MAJOR})
if(CMAKE_SIZEOF_VOID_P EQUAL 8)
    set(CPACK_DEBIAN_LIBRARY_PACKAGE_NAME ${library})
    set(CPACK_DEBIAN_DEV_PACKAGE_NAME libk42mc-r-dev)
    set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS
        "${library} (= ${PROJECT_VERSION}), k42mc-r-tools (= ${PROJECT_VERSION})")
    set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME k42mc-r-tools)
    set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
    set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${PROJECT_BINARY_DIR}/lib/libk42mc_r)
else()
    set(library lib32k42mc-r${PROJECT_VERSION_MAJOR})
    set(CPACK_DEBIAN_LIBRARY_PACKAGE_NAME ${library})
    set(CPACK_DEBIAN_LIBRARY_PACKAGE_DEPENDS "libc6-i386 (>= 2.35)")
    set(CPACK_DEBIAN_DEV_PACKAGE_NAME lib32k42mc-r-dev)
    set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS
        "${library} (= ${PROJECT_VERSION}), libk42mc-r-dev (= ${PROJECT_VERSION}), \
lib32k42mc-r-tools (= ${PROJECT_VERSION})")
    set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME lib32k42mc-r-tools)
    set(CPACK_DEBIAN_TOOLS_PACKAGE_DEPENDS
        "libc6-i386 (>= 2.35), k42mc-r-tools (= ${PROJECT_VERSION})")
endif()

set(CPACK_DEBIAN_LIBRARY_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION devel)
set(CPACK_COMPONENT_LIBRARY_DESCRIPTION
    "A process links it to find its own leaks, overruns, double frees and
descriptors that are closed twice, while it runs.")
set(CPACK_COMPONENT_DEV_DESCRIPTION
    "Headers, the flags that route a program's calls to the checker, manual
pages and examples.")
set(CPACK_COMPONENT_TOOLS_DESCRIPTION
    "The command k42mc, which runs programs that nobody rebuilt under the
checker, and reads reports.")
if(CMAKE_SIZEOF_VOID_P EQUAL 4)
    string(APPEND CPACK_COMPONENT_LIBRARY_DESCRIPTION "\nThis is the library for 32-bit processes.")
    set(CPACK_COMPONENT_DEV_DESCRIPTION "What building for 32 bits needs beside libk42mc-r-dev.")
    set(CPACK_COMPONENT_TOOLS_DESCRIPTION "What the command k42mc puts into 32-bit programs.")
endif()

file(WRITE ${PROJECT_BINARY_DIR}/shlibs
     "libk42mc_r ${PROJECT_VERSION_MAJOR} ${library} (>= ${PROJECT_VERSION})\n")
# Every user's processes write reports: the folder is made by the package, and at each start of the machine.
foreach(script postinst postrm)
    configure_file(packaging/${script}.in ${script} @ONLY FILE_PERMISSIONS
                   OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
endforeach()
set(CPACK_DEBIAN_LIBRARY_PACKAGE_CONTROL_EXTRA
    ${CMAKE_CURRENT_LIST_DIR}/triggers ${PROJECT_BINARY_DIR}/shlibs
    ${PROJECT_BINARY_DIR}/postinst ${PROJECT_BINARY_DIR}/postrm)
if(K42MC_REPORT_DIR STREQUAL "/var/log/k42mc/") # the packages' own
    file(WRITE ${PROJECT_BINARY_DIR}/${library}.conf "d ${K42MC_REPORT_DIR} 1777 root root\n")
    install(FILES ${PROJECT_BINARY_DIR}/${library}.conf DESTINATION lib/tmpfiles.d COMPONENT library)
endif()

# What a package of Debian's has in its folder below share/doc.
configure_file(packaging/changelog.in changelog @ONLY)
execute_process(COMMAND gzip -9nf ${PROJECT_BINARY_DIR}/changelog)
foreach(component library dev tools)
    string(TOUPPER ${component} name)
    install(FILES packaging/copyright ${PROJECT_BINARY_DIR}/changelog.gz
            DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/${CPACK_DEBIAN_${name}_PACKAGE_NAME}
            COMPONENT ${component})
endforeach()
include(CPack)
