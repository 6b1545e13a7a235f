# keld_install_library(TARGET DESCRIPTION HEADERS...): the library, its public headers under include/keld by their path
# from the root, and a pkg-config file.
#
# Properties of the target: KELD_REQUIRES, the packages that it calls; KELD_LIBS, what to link, if that is more than the
# library.
#
# Of some there is a shared library, too (shared.cmake). A linker takes it where it finds both; the run path lets the
# program find it under any prefix.
function(keld_install_library target description)
    install(TARGETS ${target} ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT libraries)
    set_target_properties(${target} PROPERTIES KELD_HEADERS "${ARGN}")
    foreach(header IN LISTS ARGN)
        cmake_path(GET header PARENT_PATH folder)
        install(FILES ${CMAKE_SOURCE_DIR}/${header} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/keld/${folder}
            COMPONENT libraries)
    endforeach()
    foreach(word REQUIRES LIBS)
        get_target_property(KELD_PC_${word} ${target} KELD_${word})
        if(NOT KELD_PC_${word})
            set(KELD_PC_${word} "")
        endif()
        list(JOIN KELD_PC_${word} " " KELD_PC_${word})
    endforeach()
    # Of libraries that call each other, the first once more behind the second.
    if(NOT KELD_PC_LIBS)
        set(KELD_PC_LIBS -l${target})
    endif()
    # Relative to the file itself, so that the tree may be installed under any prefix.
    file(RELATIVE_PATH KELD_PC_UP /root/${CMAKE_INSTALL_LIBDIR}/pkgconfig /root)
    set(KELD_PC_NAME ${target})
    set(KELD_PC_DESCRIPTION ${description})
    configure_file(${CMAKE_SOURCE_DIR}/cmake/library.pc.in ${CMAKE_BINARY_DIR}/lib/pkgconfig/${target}.pc @ONLY)
    install(FILES ${CMAKE_BINARY_DIR}/lib/pkgconfig/${target}.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig
        COMPONENT libraries)
endfunction()
