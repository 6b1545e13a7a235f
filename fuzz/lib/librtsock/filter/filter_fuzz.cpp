/*
 * Fuzz target: any octets as a filter, into a block of any size.
 *
 * Whatever the text, nothing is written beyond the block. A program that comes out can be evaluated: its instructions
 * fill the told length, every operator finds its two operands, one value is left in the end, and a jump leads to the &&
 * or || whose left operand it stands on. Text goes in as a file, and as a string as well where it can be one.
 */
#include "lib/librtsock/filter/rts_filter.h"

#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <unistd.h>

#include <string>
#include <vector>

extern "C" int LLVMFuzzerInitialize(int *argc, char ***argv);
extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

static char path[32];
static int source;

int LLVMFuzzerInitialize(int *, char ***)
{
    stdout = stderr = fopen("/dev/null", "w");   // the compiler's; the fuzzer has taken its own stream before
    source = memfd_create("filter", 0);
    snprintf(path, sizeof path, "/proc/self/fd/%d", source);
    return stdout && source >= 0 ? 0 : 1;
}

static void must(bool holds)
{
    if (!holds) abort();
}

/* An operand or what an operator made of two. */
struct value {
    size_t last;   // offset of its last instruction
    size_t jump;   // where that one's jump leads, or 0
    uint32_t sense;
};

static void apply(std::vector<struct value> &stack, size_t at, const uint8_t *payload)
{
    int32_t operation;
    memcpy(&operation, payload, sizeof operation);
    must(operation >= RTS_FILTER_EQ && operation <= RTS_FILTER_BIT_AND && operation != 8 && operation != 9);
    must(stack.size() >= 2);
    const struct value &left = stack[stack.size() - 2];
    bool decides = operation == RTS_FILTER_AND || operation == RTS_FILTER_OR;
    must(left.jump == (decides ? at : 0) && left.sense == (operation == RTS_FILTER_OR));
    must(stack.back().jump == 0);
    stack.resize(stack.size() - 2);
}

static void walk(const std::vector<uint8_t> &block)
{
    std::vector<struct value> stack;
    size_t at = 0, here = sizeof(struct rts_filter_head);
    struct rts_filter_instr instr;
    const uint8_t *payload;
    int more;
    while ((more = rts_filter_next(block.data(), block.size(), &at, &instr, &payload)) == 1) {
        must(here % RTS_FILTER_ALIGN == 0 && instr.length > sizeof instr);
        if (instr.code == RTS_FILTER_OPERATOR) apply(stack, here, payload);
        stack.push_back({ here, instr.jump ? here + instr.jump : 0, instr.sense });
        here = at;
    }
    must(more == 0 && stack.size() == 1 && stack[0].jump == 0);
}

/* Any program: damage is met, not believed. */
static void read_damaged(const uint8_t *data, size_t size)
{
    std::vector<uint8_t> block(data, data + size);
    size_t at = 0;
    struct rts_filter_instr instr;
    const uint8_t *payload;
    while (rts_filter_next(block.data(), block.size(), &at, &instr, &payload) == 1)
        for (size_t i = sizeof instr; i < instr.length; i++) must(payload + i - sizeof instr < block.data() + size);
}

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    read_damaged(data, size);
    if (size == 0) return 0;
    size_t room = data[0] < 128 ? data[0] * size_t(64) : 1 << 18;   // no room at all, too little, all that is needed
    data++;
    size--;
    must(ftruncate(source, 0) == 0 && pwrite(source, data, size, 0) == (ssize_t)size);
    std::vector<uint8_t> block(room), again(room);
    int result = rts_filter_parse(path, block.data(), room);
    must(result <= RTS_FILTER_DONE && result >= RTS_FILTER_FULL);
    if (result == RTS_FILTER_DONE) walk(block);

    std::string text(reinterpret_cast<const char *>(data), size);
    if (room == 0 || size > RTS_FILTER_SOURCE_MAX || strlen(text.c_str()) != size) return 0;
    must(rts_filter_string_parse(text.c_str(), again.data(), room) == result);
    must(result != RTS_FILTER_DONE || block == again);
    return 0;
}
