# What is installed beside the library, and the flags that route whole programs to it: once as the targets
# k42mc::redirect and k42mc::redirect_fd, here and in the installed CMake package, and once for
# pkg-config.
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

install(TARGETS k42mc_r k42mc_r_redirect k42mc_r_redirect_fd EXPORT k42mc_r
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

# Below the prefix, so that pkg-config can move the tree, unless the directories were given in full.
cmake_path(APPEND pc_libdir "\${prefix}" ${CMAKE_INSTALL_LIBDIR})
cmake_path(APPEND pc_includedir "\${prefix}" ${CMAKE_INSTALL_INCLUDEDIR})
list(JOIN no_builtins " " pc_no_builtins)
# The prefix is known for sure when it comes to installing only.
set(pc_prefix "@CMAKE_INSTALL_PREFIX@")
foreach(file k42mc_r.pc k42mc_r-redirect.pc k42mc_r-redirect-fd.pc)
    set(built ${CMAKE_CURRENT_BINARY_DIR}/${file})
    configure_file(${file}.in ${built}.in @ONLY)
    install(CODE "configure_file(\"${built}.in\" \"${built}\" @ONLY)" COMPONENT dev)
    install(FILES ${built} DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT dev)
endforeach()
