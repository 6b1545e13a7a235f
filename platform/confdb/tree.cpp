/*
 * Configuration tree: objects in chunks, found through one hash table.
 *
 * A tree is built once and freed whole, so its objects and texts are cut from chunks, and none is freed by itself.
 * Every object is also in the hash table under its parent, row and, for an element, name: that is how a repetition is
 * noticed and how readers look up, in the same time however long a list is. A table that cannot grow for want of memory
 * only gets slower.
 *
 * True at all times: an object's parent is linked before it, and a list's children are all elements with the list's
 * row.
 */
#include "platform/confdb/tree.h"

#include "platform/text/text.h"

#include <stdlib.h>
#include <string.h>

struct conf_chunk {
    struct conf_chunk *ch_next;
    size_t ch_used, ch_size;   // octets of ch_octets
    alignas(max_align_t) char ch_octets[];
};

struct conf_tree {
    struct conf_chunk *tr_chunks;       // owned; the one being cut first
    struct ddl_object **tr_buckets;     // owned
    size_t tr_bucket_count;             // a power of two
    size_t tr_objects;
    struct ddl_object tr_top;
    char tr_file[CONF_FILE_NAME_MAX];
};

static constexpr size_t chunk_octets = 16 * 1024;
static constexpr size_t first_bucket_count = 64;

struct conf_tree *conf_tree_new(const char *file)
{
    struct conf_tree *tree = static_cast<struct conf_tree *>(calloc(1, sizeof *tree));
    if (!tree) return nullptr;
    tree->tr_buckets = static_cast<struct ddl_object **>(calloc(first_bucket_count, sizeof *tree->tr_buckets));
    if (!tree->tr_buckets) {
        free(tree);
        return nullptr;
    }
    tree->tr_bucket_count = first_bucket_count;
    tree->tr_top.do_row = conf_row_top();
    (void)snprintf_safe(tree->tr_file, sizeof tree->tr_file, "%s", file);
    return tree;
}

void conf_tree_free(struct conf_tree *tree)
{
    if (!tree) return;
    for (struct conf_chunk *chunk = tree->tr_chunks; chunk;) {
        struct conf_chunk *next = chunk->ch_next;
        free(chunk);
        chunk = next;
    }
    free(tree->tr_buckets);
    free(tree);
}

struct ddl_object *conf_tree_top(struct conf_tree *tree)
{
    return &tree->tr_top;
}

const char *conf_tree_file(const struct conf_tree *tree)
{
    return tree->tr_file;
}

bool conf_object_is_element(const struct ddl_object *object)
{
    return object->do_parent && object->do_parent->do_row == object->do_row;
}

bool conf_object_is_list(const struct ddl_object *object)
{
    return object->do_row->cr_shape == CONF_LIST && !conf_object_is_element(object);
}

char *conf_tree_room(struct conf_tree *tree, size_t octets)
{
    octets = (octets + alignof(max_align_t) - 1) & ~(alignof(max_align_t) - 1);
    struct conf_chunk *chunk = tree->tr_chunks;
    if (!chunk || chunk->ch_size - chunk->ch_used < octets) {
        size_t size = octets > chunk_octets ? octets : chunk_octets;
        chunk = static_cast<struct conf_chunk *>(malloc(sizeof *chunk + size));
        if (!chunk) return nullptr;
        *chunk = { tree->tr_chunks, 0, size };
        tree->tr_chunks = chunk;
    }
    char *room = chunk->ch_octets + chunk->ch_used;
    chunk->ch_used += octets;
    return room;
}

/* FNV-1a over the key. */
static size_t key_hash(const struct ddl_object *parent, const struct conf_row *row, const char *name)
{
    static constexpr uint64_t prime = 1099511628211u;
    uint64_t hash = 14695981039346656037u;
    for (uint64_t word : { reinterpret_cast<uintptr_t>(parent), reinterpret_cast<uintptr_t>(row) })
        hash = (hash ^ word) * prime;
    for (; name && *name != '\0'; name++) hash = (hash ^ static_cast<unsigned char>(*name)) * prime;
    return static_cast<size_t>(hash ^ hash >> 32);
}

static const char *object_name(const struct ddl_object *object)
{
    return conf_object_is_element(object) ? object->do_text : nullptr;
}

static struct ddl_object **bucket_of(const struct conf_tree *tree, size_t hash)
{
    return &tree->tr_buckets[hash & (tree->tr_bucket_count - 1)];
}

struct ddl_object *conf_tree_find(const struct conf_tree *tree, const struct ddl_object *parent,
                                  const struct conf_row *row, const char *name)
{
    struct ddl_object *object = *bucket_of(tree, key_hash(parent, row, name));
    for (; object; object = object->do_hash_next) {
        if (object->do_parent != parent || object->do_row != row) continue;
        if (!name || strcmp(object->do_text, name) == 0) return object;
    }
    return nullptr;
}

static void hash_link(struct conf_tree *tree, struct ddl_object *object)
{
    struct ddl_object **bucket = bucket_of(tree, key_hash(object->do_parent, object->do_row, object_name(object)));
    object->do_hash_next = *bucket;
    *bucket = object;
}

static void hash_grow(struct conf_tree *tree)
{
    struct ddl_object **old = tree->tr_buckets;
    size_t old_count = tree->tr_bucket_count;
    struct ddl_object **buckets = static_cast<struct ddl_object **>(calloc(2 * old_count, sizeof *buckets));
    if (!buckets) return;
    tree->tr_buckets = buckets;
    tree->tr_bucket_count = 2 * old_count;
    for (size_t i = 0; i < old_count; i++) {
        for (struct ddl_object *object = old[i]; object;) {
            struct ddl_object *next = object->do_hash_next;
            hash_link(tree, object);
            object = next;
        }
    }
    free(old);
}

struct ddl_object *conf_tree_add(struct conf_tree *tree, struct ddl_object *parent, const struct conf_row *row,
                                 const char *name)
{
    struct ddl_object *object = conf_tree_find(tree, parent, row, name);
    if (object) return object;
    if (tree->tr_objects >= tree->tr_bucket_count) hash_grow(tree);
    object = reinterpret_cast<struct ddl_object *>(conf_tree_room(tree, sizeof *object));
    if (!object) return nullptr;
    *object = { .do_row = row, .do_parent = parent, .do_first = nullptr, .do_last = nullptr, .do_next = nullptr,
                .do_hash_next = nullptr, .do_text = name, .do_line = 0, .do_column = 0 };
    (parent->do_last ? parent->do_last->do_next : parent->do_first) = object;
    parent->do_last = object;
    tree->tr_objects++;
    hash_link(tree, object);
    return object;
}
