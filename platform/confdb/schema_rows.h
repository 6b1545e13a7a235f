/*
 * The schema's rows. Included by schema.cpp alone.
 *
 * Rows of one parent stand together, in the order in which messages name them. A new setting is a row here and a reader
 * elsewhere. Limits of texts are those of the readers' buffers without the terminator.
 */
#pragma once

#include "platform/confdb/schema.h"
#include "platform/log/log.h"

static constexpr uint32_t any_number = UINT32_MAX;
static constexpr uint32_t timer_seconds_max = INT32_MAX;   // what the timers' clock can hold
static constexpr uint32_t name_max = 254;          // host and authority names
static constexpr uint32_t file_name_max = 255;
// A client's name ends that of its file.
static constexpr uint32_t client_id_max = file_name_max - (sizeof "sshd_config_obssh." - 1);
static constexpr uint32_t path_max = 1023;
static constexpr uint32_t trace_size_min = 1024;   // below this a trace file would rotate at every other line
static constexpr uint32_t trace_size_max = 1u << 30;

static constexpr struct conf_word trace_flags[] = {
    { "beep", 1u << DTF_BEEP },     { "profile", 1u << DTF_PROFILE }, { "core", 1u << DTF_CORE },
    { "octets", 1u << DTF_OCTETS }, { "dump", 1u << DTF_DUMP },       { "all", (1u << DTF_CLASSES) - 1 },
    { nullptr, 0 },
};
static constexpr struct conf_word strategies[] = { { "sticky", 0 }, { "in-order", 1 }, { nullptr, 0 } };
static constexpr struct conf_word ssh_services[] = { { "netconf", 0 }, { nullptr, 0 } };
static constexpr struct conf_word engine_roles[] = { { "master", 0 }, { "backup", 1 }, { nullptr, 0 } };

/* A stanza; also the file itself. */
static constexpr struct conf_row stanza(enum conf_place parent, const char *keyword, enum conf_place place,
                                        enum conf_shape shape = CONF_STANZA)
{
    return { parent, keyword, shape, place, CONF_BY_NAME, CONF_NONE, 0, 0, nullptr, nullptr };
}

static constexpr struct conf_row leaf(enum conf_place parent, const char *keyword, enum conf_value value, uint32_t min,
                                      uint32_t max, int8_t attribute = CONF_BY_NAME)
{
    return { parent, keyword, CONF_LEAF, CONF_NOWHERE, attribute, value, min, max, nullptr, nullptr };
}

static constexpr struct conf_row word(enum conf_place parent, const char *keyword, const struct conf_word *words)
{
    return { parent, keyword, CONF_LEAF, CONF_NOWHERE, CONF_BY_NAME, CONF_WORD, 0, 0, nullptr, words };
}

static constexpr struct conf_row presence(enum conf_place parent, const char *keyword)
{
    return { parent, keyword, CONF_PRESENCE, CONF_NOWHERE, CONF_BY_NAME, CONF_NONE, 0, 0, nullptr, nullptr };
}

/* max is the longest name; 0 if the kind of the names needs none. */
static constexpr struct conf_row list(enum conf_place parent, const char *keyword, enum conf_place place,
                                      const char *key, enum conf_value names, uint32_t max,
                                      int8_t attribute = CONF_BY_NAME)
{
    return { parent, keyword, CONF_LIST, place, attribute, names, max ? 1u : 0u, max, key, nullptr };
}

static constexpr struct conf_row word_list(enum conf_place parent, const char *keyword, const struct conf_word *words)
{
    return { parent, keyword, CONF_LIST, CONF_NAME_ONLY, CONF_BY_NAME, CONF_WORD, 0, 0, "name", words };
}

static constexpr struct conf_row top_row = stanza(CONF_NOWHERE, "", CONF_TOP);

static constexpr struct conf_row rows[] = {
    stanza(CONF_TOP, "system", CONF_SYSTEM),
    stanza(CONF_TOP, "security", CONF_SECURITY),
    list(CONF_TOP, "interfaces", CONF_INTERFACE, "name", CONF_PLAIN_NAME, 59),
    stanza(CONF_TOP, "chassis", CONF_CHASSIS),

    stanza(CONF_SYSTEM, "services", CONF_SERVICES),

    stanza(CONF_SERVICES, "service-deployment", CONF_DEPLOYMENT),
    stanza(CONF_SERVICES, "outbound-ssh", CONF_OUTBOUND),

    leaf(CONF_DEPLOYMENT, "local-certificate", CONF_FILE_NAME, 1, path_max, 1),
    leaf(CONF_DEPLOYMENT, "source-address", CONF_IPV4, 0, 0, 2),
    list(CONF_DEPLOYMENT, "servers", CONF_DEPLOYMENT_SERVER, "address", CONF_IPV4, 0, 3),
    stanza(CONF_DEPLOYMENT, "traceoptions", CONF_TRACE),

    leaf(CONF_DEPLOYMENT_SERVER, "port", CONF_NUMBER, 1, UINT16_MAX, 2),
    leaf(CONF_DEPLOYMENT_SERVER, "user", CONF_TEXT, 1, 64, 3),
    stanza(CONF_DEPLOYMENT_SERVER, "security-options", CONF_SECURITY_OPTIONS),

    presence(CONF_SECURITY_OPTIONS, "tls"),
    presence(CONF_SECURITY_OPTIONS, "ssl3"),
    presence(CONF_SECURITY_OPTIONS, "self-certificate"),

    word_list(CONF_TRACE, "flag", trace_flags),
    leaf(CONF_TRACE, "size", CONF_NUMBER, trace_size_min, trace_size_max),
    leaf(CONF_TRACE, "files", CONF_NUMBER, 1, 1000),

    leaf(CONF_OUTBOUND, "routing-instance", CONF_TEXT, 0, 129),
    list(CONF_OUTBOUND, "client", CONF_CLIENT, "client-id", CONF_FILE_SUFFIX, client_id_max),
    stanza(CONF_OUTBOUND, "traceoptions", CONF_TRACE),

    leaf(CONF_CLIENT, "device-id", CONF_TEXT, 0, name_max),
    leaf(CONF_CLIENT, "secret", CONF_SECRET, 0, name_max),
    stanza(CONF_CLIENT, "keep-alive", CONF_KEEP_ALIVE),
    word(CONF_CLIENT, "reconnect-strategy", strategies),
    word(CONF_CLIENT, "services", ssh_services),
    list(CONF_CLIENT, "servers", CONF_CLIENT_SERVER, "address", CONF_TEXT, name_max),

    leaf(CONF_KEEP_ALIVE, "retry", CONF_NUMBER, 0, any_number),
    leaf(CONF_KEEP_ALIVE, "timeout", CONF_NUMBER, 0, any_number),

    leaf(CONF_CLIENT_SERVER, "port", CONF_NUMBER, 1, UINT16_MAX),
    leaf(CONF_CLIENT_SERVER, "retry", CONF_NUMBER, 0, any_number),
    leaf(CONF_CLIENT_SERVER, "timeout", CONF_NUMBER, 0, timer_seconds_max),

    stanza(CONF_SECURITY, "certificates", CONF_CERTIFICATES),

    list(CONF_CERTIFICATES, "certification-authority", CONF_AUTHORITY, "name", CONF_TEXT, name_max),

    leaf(CONF_AUTHORITY, "file", CONF_PATH, 1, path_max),

    leaf(CONF_INTERFACE, "description", CONF_TEXT, 0, name_max),
    presence(CONF_INTERFACE, "disable"),
    leaf(CONF_INTERFACE, "mtu", CONF_NUMBER, 68, UINT16_MAX),
    list(CONF_INTERFACE, "unit", CONF_UNIT, "name", CONF_UNIT_NAME, 9),

    leaf(CONF_UNIT, "description", CONF_TEXT, 0, name_max),
    presence(CONF_UNIT, "disable"),
    leaf(CONF_UNIT, "vlan-id", CONF_NUMBER, 1, 4094),
    leaf(CONF_UNIT, "mtu", CONF_NUMBER, 68, UINT16_MAX),
    stanza(CONF_UNIT, "family", CONF_FAMILY, CONF_INLINE),

    stanza(CONF_FAMILY, "inet", CONF_INET),
    stanza(CONF_FAMILY, "inet6", CONF_INET6),

    list(CONF_INET, "address", CONF_NAME_ONLY, "name", CONF_PREFIX4, 0),

    list(CONF_INET6, "address", CONF_NAME_ONLY, "name", CONF_PREFIX6, 0),

    presence(CONF_CHASSIS, "cluster"),
    word(CONF_CHASSIS, "routing-engine", engine_roles),
    leaf(CONF_CHASSIS, "capabilities", CONF_NUMBER, 0, UINT8_MAX),
};
