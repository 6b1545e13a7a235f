# One set of flags for every target. keld_flags carries them; product code also takes keld_product_flags.

set(CMAKE_CXX_STANDARD 20)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS ON)
set(CMAKE_EXPORT_COMPILE_COMMANDS ON)

# Shared libraries are made of the static ones.
set(CMAKE_POSITION_INDEPENDENT_CODE ON)

if(NOT CMAKE_BUILD_TYPE)
    set(CMAKE_BUILD_TYPE RelWithDebInfo CACHE STRING "" FORCE)
endif()

add_library(keld_flags INTERFACE)
target_compile_options(keld_flags INTERFACE
    -Wall -Wextra -Werror -Wshadow -Wformat=2 -Wmissing-declarations -Wcast-qual -Wundef
    -fno-strict-aliasing -fstack-protector-strong)
target_include_directories(keld_flags INTERFACE ${CMAKE_SOURCE_DIR})
target_compile_definitions(keld_flags INTERFACE
    _GNU_SOURCE KELD_RELEASE="${PROJECT_VERSION}" KELD_URI_BASE="${KELD_URI_BASE}")

if(KELD_SANITIZE)
    target_compile_options(keld_flags INTERFACE -fsanitize=address,undefined -fno-sanitize-recover=undefined
        -fno-omit-frame-pointer)
    target_link_options(keld_flags INTERFACE -fsanitize=address,undefined)
endif()
if(KELD_FUZZ)
    target_compile_options(keld_flags INTERFACE -fsanitize=fuzzer-no-link)
endif()

add_library(keld_product_flags INTERFACE)
target_link_libraries(keld_product_flags INTERFACE keld_flags)
# Nobody takes the place of a function of a library, so calls inside it stay as good as in a program's own code.
target_compile_options(keld_product_flags INTERFACE -fno-exceptions -fno-rtti -ffunction-sections -fdata-sections
    -fno-semantic-interposition)
target_link_options(keld_product_flags INTERFACE -Wl,--gc-sections)
