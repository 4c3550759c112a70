# What is installed beside the library: the flags that route whole programs to it, once as the targets
# k42mc::redirect and k42mc::redirect_fd, here and in the installed CMake package, and once for pkg-config;
# and the object that switches the checker on.
include(CMakePackageConfigHelpers)

add_library(k42mc::k42mc_r ALIAS k42mc_r)

# Left to themselves, compilers merge, replace and drop calls of these: malloc and memset become libc's
# calloc, say.
set(no_builtins)
foreach(name malloc calloc realloc reallocarray posix_memalign aligned_alloc memalign valloc free strdup
        strndup wcsdup)
    list(APPEND no_builtins -fno-builtin-${name})
endforeach()

# A target whose users' sources in the given languages include k42mc/<name>.h first, and find the wrappers of
# the system headers in k42mc/<name>/.
function(k42mc_redirect name languages)
    add_library(k42mc_r_${name} INTERFACE)
    add_library(k42mc::${name} ALIAS k42mc_r_${name})
    set_target_properties(k42mc_r_${name} PROPERTIES EXPORT_NAME ${name})
    target_link_libraries(k42mc_r_${name} INTERFACE k42mc_r)
    target_include_directories(k42mc_r_${name} SYSTEM INTERFACE
        $<BUILD_INTERFACE:${top}/include/k42mc/${name}>
        $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}/k42mc/${name}>)
    target_compile_options(k42mc_r_${name} INTERFACE
        "$<$<COMPILE_LANGUAGE:${languages}>:SHELL:-include k42mc/${name}.h>")
endfunction()

k42mc_redirect(redirect C,CXX)
target_compile_options(k42mc_r_redirect INTERFACE "$<$<COMPILE_LANGUAGE:C,CXX>:${no_builtins}>")
k42mc_redirect(redirect_fd C)

# For programs that are linked with it: switches the checker on before main.
add_library(k42mc_start OBJECT ${top}/examples/checker_on.c)
set_target_properties(k42mc_start PROPERTIES POSITION_INDEPENDENT_CODE ON)
target_compile_options(k42mc_start PRIVATE -g0)
target_link_libraries(k42mc_start PRIVATE k42mc_warnings k42mc_r)
set(start_object ${CMAKE_INSTALL_LIBDIR}/k42mc/k42mc_start.o)
install(FILES $<TARGET_OBJECTS:k42mc_start> DESTINATION ${CMAKE_INSTALL_LIBDIR}/k42mc
        RENAME k42mc_start.o COMPONENT dev)
add_library(k42mc_r_start INTERFACE)
add_library(k42mc::start ALIAS k42mc_r_start)
set_target_properties(k42mc_r_start PROPERTIES EXPORT_NAME start)
cmake_path(ABSOLUTE_PATH start_object BASE_DIRECTORY "$<INSTALL_PREFIX>")
target_link_libraries(k42mc_r_start INTERFACE k42mc_r
    $<BUILD_INTERFACE:$<TARGET_OBJECTS:k42mc_start>> $<INSTALL_INTERFACE:${start_object}>)

install(TARGETS k42mc_r k42mc_r_redirect k42mc_r_redirect_fd k42mc_r_start EXPORT k42mc_r
        LIBRARY COMPONENT library NAMELINK_COMPONENT dev)
install(DIRECTORY ${top}/include/k42mc DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}
        COMPONENT ${common_component})
install(DIRECTORY ${top}/examples DESTINATION ${CMAKE_INSTALL_DOCDIR}
        COMPONENT ${common_component} PATTERN CMakeLists.txt EXCLUDE PATTERN demo.sh EXCLUDE)

set(package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/k42mc_r)
install(EXPORT k42mc_r NAMESPACE k42mc:: FILE k42mc_rTargets.cmake DESTINATION ${package_dir}
        COMPONENT dev)
configure_package_config_file(k42mc_rConfig.cmake.in k42mc_rConfig.cmake
                              INSTALL_DESTINATION ${package_dir})
write_basic_package_version_file(k42mc_rConfigVersion.cmake COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/k42mc_rConfig.cmake
              ${CMAKE_CURRENT_BINARY_DIR}/k42mc_rConfigVersion.cmake
        DESTINATION ${package_dir} COMPONENT dev)

# An installed pkg-config file, from <name>.in beside the caller. Directories are below the prefix, so that
# pkg-config can move the tree, unless they were given in full.
function(k42mc_pkgconfig name)
    cmake_path(APPEND pc_libdir "\${prefix}" ${CMAKE_INSTALL_LIBDIR})
    cmake_path(APPEND pc_includedir "\${prefix}" ${CMAKE_INSTALL_INCLUDEDIR})
    # The prefix is known for sure when it comes to installing only.
    set(pc_prefix "@CMAKE_INSTALL_PREFIX@")
    set(built ${CMAKE_CURRENT_BINARY_DIR}/${name})
    configure_file(${name}.in ${built}.in @ONLY)
    install(CODE "configure_file(\"${built}.in\" \"${built}\" @ONLY)" COMPONENT dev)
    install(FILES ${built} DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT dev)
endfunction()

list(JOIN no_builtins " " pc_no_builtins)
k42mc_pkgconfig(k42mc_r.pc)
k42mc_pkgconfig(k42mc_r-redirect.pc)
k42mc_pkgconfig(k42mc_r-redirect-fd.pc)
