/*
 * Fuzz target: any octets given to idlcat in any of its modes, as they are or as hexadecimal text.
 *
 * Every run ends, and tells of broken messages by their number: no more of them than twice the octets. The first two
 * octets choose the mode, of those that the program's options let through.
 */
#include "tools/idlcat/idlcat.h"

#include <stdlib.h>

extern "C" int LLVMFuzzerInitialize(int *argc, char ***argv);
extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

static FILE *nowhere;

int LLVMFuzzerInitialize(int *, char ***)
{
    nowhere = stderr = fopen("/dev/null", "w");   // the library logs odd values; the fuzzer has its own stream
    return nowhere ? 0 : 1;
}

static bool has_form(const struct idl_type *type, bool idr)
{
    return type->it_dialect != (idr ? IDL_DIALECT_NETWORK : IDL_DIALECT_IDR);
}

/* False: the program refuses these options. */
static bool choose(const uint8_t *data, idlcat_options &options)
{
    options.hex_in = (data[0] & 1) != 0;
    options.hex_out = (data[0] & 2) != 0;
    options.absent = (data[0] & 4) != 0;
    options.convert = (data[0] & 8) != 0;
    options.to = (data[0] & 16) != 0 ? wire_form::idr : wire_form::tlv;
    if ((data[0] & 32) == 0) return true;
    options.type = idl_catalogue[data[1] % idl_catalogue_count];
    options.idr = (data[0] & 64) != 0;
    bool to_idr = options.to == wire_form::idr;
    return has_form(options.type, options.idr) && (!options.convert || has_form(options.type, to_idr));
}

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    enum { CHOICE = 2 };
    idlcat_options options;
    if (size < CHOICE || !choose(data, options)) return 0;
    data += CHOICE;
    size -= CHOICE;
    std::vector<uint8_t> octets(data, data + size);
    if (options.hex_in) {
        idlcat_fault fault;
        octets.clear();
        bool good = parse_hex(std::string(data, data + size), octets, fault);
        if (good == !fault.text.empty() || octets.size() > size / 2 || fault.offset > size) abort();
        if (!good) return 0;
    }
    if (run_messages(options, "input", octets, nowhere, nowhere) > 2 * octets.size() + 1) abort();
    return 0;
}
