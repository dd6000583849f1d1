// Values of the data model as the agent, its client library and its tools exchange them.
//
// One value is a tagged union of 40 bytes. Text, binary and list values point to memory; who owns that memory is said
// where a value is handed over. Enumeration, bit and address forms are those of the YANG types (RFC 7950, RFC 6991).
#ifndef AGENT_WIRE_CONFD_VALUE_H
#define AGENT_WIRE_CONFD_VALUE_H

#include <netinet/in.h>
#include <stdint.h>

#define MAXDEPTH  20 // levels of a keypath, key elements included
#define MAXKEYLEN 9  // keys of one list

enum confd_vtype {
    C_NOEXISTS = 1, // no value: deleted, or the end of a row of keys
    C_XMLTAG = 2,   // a node by its tag; the value of a leaf of type empty
    C_STR = 4,      // NUL-terminated text
    C_BUF = 5,      // text with a length; a NUL follows it when it comes from the agent
    C_UINT8 = 6,
    C_UINT16 = 7,
    C_UINT32 = 8,
    C_UINT64 = 9,
    C_INT8 = 10,
    C_INT16 = 11,
    C_INT32 = 12,
    C_INT64 = 13,
    C_DOUBLE = 14,
    C_IPV4 = 15, // network byte order
    C_IPV6 = 16,
    C_BOOL = 17,
    C_QNAME = 18,
    C_DATETIME = 19,
    C_ENUM_VALUE = 23, // the enum's number
    C_BIT32 = 24,      // bit n is position n of the bits type
    C_BIT64 = 25,
    C_DECIMAL64 = 26,
    C_IDENTITYREF = 27,
    C_IPV4PREFIX = 28,
    C_IPV6PREFIX = 29,
    C_LIST = 31,      // a leaf-list's values
    C_XMLBEGIN = 32,  // a container or list entry begins
    C_XMLEND = 33,    // and ends
    C_OBJECTREF = 34, // an instance-identifier, as a keypath
    C_OID = 38,       // arcs of an object identifier
    C_BINARY = 39,
    C_DEFAULT = 40,     // the leaf has no value of its own: its default is in force
    C_XMLBEGINDEL = 45, // a deleted list entry begins
};

struct xml_tag {
    uint32_t tag; // hash of the node's name
    uint32_t ns;  // hash of the module's namespace
};

struct confd_buf {
    unsigned char *ptr;
    unsigned int size;
};

struct confd_datetime {
    int16_t year;
    uint8_t month;
    uint8_t day;
    uint8_t hour;
    uint8_t min;
    uint8_t sec;
    uint32_t micro;
    int8_t timezone;         // hours east of UTC, or CONFD_TIMEZONE_UNDEF
    int8_t timezone_minutes; // minutes added to them
};
#define CONFD_TIMEZONE_UNDEF (-111)

struct confd_decimal64 {
    int64_t value;
    uint8_t fraction_digits;
};

struct confd_identityref {
    uint32_t ns;
    uint32_t id;
};

struct confd_ipv4_prefix {
    struct in_addr ip;
    uint8_t len;
};

struct confd_ipv6_prefix {
    struct in6_addr ip6;
    uint8_t len;
};

struct confd_oid {
    uint32_t *oid;
    int len;
};

struct confd_value;
struct confd_hkeypath;

struct confd_list {
    struct confd_value *ptr;
    unsigned int size;
};

typedef struct confd_value {
    enum confd_vtype type;
    union {
        struct xml_tag xmltag;
        const char *s;
        struct confd_buf buf;
        int8_t i8;
        int16_t i16;
        int32_t i32;
        int64_t i64;
        uint8_t u8;
        uint16_t u16;
        uint32_t u32;
        uint64_t u64;
        double d;
        int boolean;
        struct in_addr ip;
        struct in6_addr ip6;
        struct confd_datetime datetime;
        int32_t enumvalue;
        uint32_t b32;
        uint64_t b64;
        struct confd_decimal64 d64;
        struct confd_identityref idref;
        struct confd_ipv4_prefix ipv4prefix;
        struct confd_ipv6_prefix ipv6prefix;
        struct confd_list list;
        struct confd_hkeypath *hkp;
        struct confd_oid *oidp;
        uint64_t room[4]; // fixes the size of the record
    } val;
} confd_value_t;

#ifdef __cplusplus
static_assert(sizeof(confd_value_t) == 40, "the record's size is part of the library's interface");
#endif

typedef struct confd_tag_value {
    struct xml_tag tag;
    confd_value_t v;
} confd_tag_value_t;

// A path to one node. Element 0 is the innermost. An element is either one C_XMLTAG value, or the keys of a list
// entry, ended by C_NOEXISTS when they are fewer than MAXKEYLEN; the element behind a key element is its list's tag.
typedef struct confd_hkeypath {
    confd_value_t v[MAXDEPTH][MAXKEYLEN];
    int len; // elements in use
} confd_hkeypath_t;

// Error numbers of the agent, as replies carry them and confd_errno shows them.
enum confd_errcode_num {
    CONFD_ERR_OK = 0,
    CONFD_ERR_NOEXISTS = 1,       // no such item
    CONFD_ERR_ALREADY_EXISTS = 2, // the item is there already
    CONFD_ERR_ACCESS_DENIED = 3,
    CONFD_ERR_NOT_WRITABLE = 4,
    CONFD_ERR_BADTYPE = 5, // the value does not fit the node's type
    CONFD_ERR_NOTCREATABLE = 6,
    CONFD_ERR_NOTDELETABLE = 7,
    CONFD_ERR_BADPATH = 8, // no such node in the data model
    CONFD_ERR_NOSTACK = 9,
    CONFD_ERR_LOCKED = 10, // somebody else holds the lock
    CONFD_ERR_INUSE = 11,
    CONFD_ERR_NOTSET = 12, // something mandatory is not set
    CONFD_ERR_NOSESSION = 13,
    CONFD_ERR_TOOMANYTRANS = 14,
    CONFD_ERR_OS = 15,       // a system call failed
    CONFD_ERR_BADSTATE = 16, // the call does not fit the state of the session, transaction or agent
    CONFD_ERR_PROTOUSAGE = 17,
    CONFD_ERR_INTERNAL = 18,
    CONFD_ERR_EXTERNAL = 19, // a callback failed
    CONFD_ERR_MALLOC = 20,
    CONFD_ERR_UNAVAILABLE = 21, // nobody serves it, or it did not answer in time
    CONFD_ERR_ABORTED = 22,     // the transaction was aborted
    CONFD_ERR_VALIDATION = 23,  // a rule of the data model refused the transaction
    CONFD_ERR_CONFLICT = 24,    // running has changed under the transaction
    CONFD_ERR_TOOBIG = 25,
};

#endif
