/*
 * The library's catalogue: tables and public functions of all its types, and the ways to find one.
 */
#include "lib/librtsock/idl/idl.h"

#include <string.h>

#define IDL_CATALOGUE "lib/librtsock/idl/catalogue/catalogue.def"
#include "lib/librtsock/idl/idl_define.h"

extern "C" {

#define IDL_BEGIN(T, N, DIALECT, PARTS) &idl_type_##T,
#define IDL_CHOICE_BEGIN(T, N, DIALECT, PARTS) IDL_BEGIN(T, N, DIALECT, PARTS)
const struct idl_type *const idl_catalogue[] = {
#include "lib/librtsock/idl/idl_pass.h"
};
const uint32_t idl_catalogue_count = sizeof idl_catalogue / sizeof idl_catalogue[0];

const struct idl_type *idl_type_by_name(const char *name)
{
    for (const struct idl_type *type : idl_catalogue) {
        if (strcmp(type->it_name, name) == 0)
            return type;
    }
    return nullptr;
}

}   // extern "C"
