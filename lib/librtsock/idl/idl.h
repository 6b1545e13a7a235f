/*
 * Messages of the routing socket: the records of the catalogue and their codecs.
 *
 * A record travels as TLV (tagged, tolerant: any field may be absent, an unknown one is skipped) or as IDR (flat,
 * strict). catalogue/ holds the types; idl_declare.h tells what each of them has. This header adds the frame: a whole
 * message with its envelope.
 */
#pragma once

#include "lib/librtsock/idl/idl_table.h"

#define IDL_CATALOGUE "lib/librtsock/idl/catalogue/catalogue.def"
#include "lib/librtsock/idl/idl_declare.h"
#undef IDL_CATALOGUE

extern "C" {

/* The envelope: three 32-bit words in host order, the body behind them. */
enum {
    IDL_MAGIC_TLV = 0x5011,
    IDL_MAGIC_IDR = 0x5022,
    IDL_ENVELOPE_SIZE = 12,   // magic, length of the body, rtsh_type
};

/* A message: its type selects the record that msg points to. Types without a codec have none. */
struct rts_msg {
    uint32_t type;
    void *msg;
};
/* Presence of a whole message: msg points to the map_T of the record's type, or is null. */
struct map_rts_msg {
    void *msg;
};

/* Octets of envelope and body, also when they did not fit. A type without a codec, or a null msg, gives an envelope of
 * length 0. map null, or its msg null: every field is written. */
int32_t tlv_encode_rts_msg_0(const struct rts_msg *message, const struct map_rts_msg *map, void *buffer, size_t size);
int32_t idr_encode_rts_msg_0(const struct rts_msg *message, void *buffer, size_t size);
/* Octets consumed, or an enum idl_code. The record is the first thing taken from alloc, its map (if map is not null)
 * the second. A type without a codec leaves msg null. */
int32_t tlv_decode_rts_msg_0(struct rts_msg *message, struct map_rts_msg *map, const void *data, size_t length,
                             idl_alloc_func alloc, void *context);
int32_t idr_decode_rts_msg_0(struct rts_msg *message, const void *data, size_t length, idl_alloc_func alloc,
                             void *context);
/* Gives back all that a decode took, the record and its map included. */
void tlv_release_rts_msg_0(struct rts_msg *message, struct map_rts_msg *map, idl_release_func release, void *context);
void idr_release_rts_msg_0(struct rts_msg *message, idl_release_func release, void *context);
extern const uint32_t tlv_rtti_sizeof_rts_msg_0, tlv_rtti_sizeof_map_rts_msg_0, idr_rtti_sizeof_rts_msg_0;

/* Address families between the system's numbering and that of the TLV form. Out of range: logged at severity 2, the
 * value comes back unchanged. */
uint8_t rts_encode_af(uint8_t family);
uint8_t rts_decode_af(uint8_t number);

}   // extern "C"
