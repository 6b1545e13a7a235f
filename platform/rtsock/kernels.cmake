# The kernels behind the routing socket. They speak the messages of lib/librtsock/idl, so the library comes first.
add_library(rtsock_kernels STATIC)
target_link_libraries(rtsock_kernels PUBLIC keld_flags rtsock platform PRIVATE keld_product_flags)
foreach(room kernel model linux)
    add_subdirectory(platform/rtsock/${room})
endforeach()
set_target_properties(rtsock_kernels PROPERTIES KELD_REQUIRES rtsock)
keld_install_library(rtsock_kernels "Kernels behind the routing socket of keld"
    platform/rtsock/kernel/rk.h platform/rtsock/model/rtsock_model.h platform/rtsock/linux/rtsock_linux.h)
