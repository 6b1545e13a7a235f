# keld_shared_library(TARGET DEPENDENCIES...): all of a static library once more as a shared one of the same name, in
# which only what the public headers declare is visible. Dependencies are shared libraries made before, or imported ones.
#
# Each library is one of its own, so that a program has its state - the kernel in force, the log - once, whichever of
# them it uses. They lie in a folder of their own: who links from the build folder by -L gets the static ones, which
# need nothing to be found at run time.
set(empty ${CMAKE_BINARY_DIR}/lib/shared/empty.cpp)   # a library has a source
file(CONFIGURE OUTPUT ${empty} CONTENT "")

function(keld_shared_library target)
    set(shared ${target}_shared)
    set(symbols ${CMAKE_BINARY_DIR}/lib/shared/${target}.map)
    get_target_property(headers ${target} KELD_HEADERS)
    add_custom_command(OUTPUT ${symbols}
        COMMAND ${CMAKE_SOURCE_DIR}/cmake/public_symbols.sh ${CMAKE_SOURCE_DIR} ${CMAKE_CXX_COMPILER} ${CMAKE_NM}
            $<TARGET_FILE:${target}> ${headers} > ${symbols}
        DEPENDS ${target} ${CMAKE_SOURCE_DIR}/cmake/public_symbols.sh
        COMMENT "What lib${target}.so shows" VERBATIM)
    add_custom_target(${target}_symbols DEPENDS ${symbols})

    add_library(${shared} SHARED ${empty})
    add_dependencies(${shared} ${target}_symbols)
    target_link_libraries(${shared} PRIVATE
        -Wl,--whole-archive,$<TARGET_FILE:${target}>,--no-whole-archive keld_product_flags ${ARGN})
    target_link_options(${shared} PRIVATE -Wl,--version-script=${symbols})
    if(NOT KELD_SANITIZE AND NOT KELD_FUZZ)
        target_link_options(${shared} PRIVATE -Wl,-z,defs)
    endif()
    set_target_properties(${shared} PROPERTIES OUTPUT_NAME ${target} LINK_DEPENDS ${symbols}
        VERSION ${PROJECT_VERSION} SOVERSION ${PROJECT_VERSION_MAJOR}
        LIBRARY_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/lib/shared INSTALL_RPATH "$ORIGIN")
    install(TARGETS ${shared} LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT libraries)
endfunction()

keld_shared_library(platform OpenSSL::Crypto)
keld_shared_library(itable)
keld_shared_library(rtsock itable_shared platform_shared)
keld_shared_library(rtsock_kernels rtsock_shared platform_shared)
