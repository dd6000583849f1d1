// EEPROMs of modules, and the chain of TLV records that they hold.
//
// A record is an 8-byte header of big-endian fields with its value behind it; a type of 65535 ends the chain. The
// checksum is the 16-bit sum of all bytes of header and value but the two of the checksum itself. Failures are logged
// here, in fixed texts.
#ifndef COMMON_TIP_EEPROM_H
#define COMMON_TIP_EEPROM_H

#include "common/tip_handle.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <sys/types.h>

enum eeprom_kind_t {
    EEPROM_KIND_0 = 0,    // by bus number, 3 unless given
    EEPROM_KIND_1 = 1,    // by bus number, 6 unless given
    EEPROM_KIND_2 = 2,    // by bus number, 17 unless given
    EEPROM_KIND_PATH = 3, // a device file of the caller's
};

inline constexpr size_t EEPROM_PATH_SIZE = 64;
inline constexpr uint16_t EEPROM_TLV_END = 65535;
inline constexpr size_t EEPROM_TLV_MAX = 256;
inline constexpr uint32_t EEPROM_NOT_FOUND = 0x80000000U; // flag in the result of eeprom_tlv_find
inline constexpr int EEPROM_NO_PATH = 9;

struct eeprom_t {
    char path[EEPROM_PATH_SIZE]; // of the device file
    int bus;                     // as the caller gave it
    int i2c_bus;                 // the one in the path
    int dev_addr;                // i2c address, as it is written in the path
    unique_fd fd;
    uint32_t start; // offset of the first TLV record
};
using eeprom_ptr = std::unique_ptr<eeprom_t>;

// The header as eeprom_tlv_read stores it: fields in host byte order, the value behind it.
struct eeprom_tlv_t {
    uint16_t type;
    uint16_t length; // header included, 8..EEPROM_TLV_MAX
    uint8_t unused;
    uint8_t instance;
    uint16_t checksum;
};
static_assert(sizeof(eeprom_tlv_t) == 8);

// A device that is not open yet. bus 0 stands for the kind's own; path is for EEPROM_KIND_PATH only. Null for a negative
// bus, another kind, a path that does not fit, or no memory.
[[nodiscard]] eeprom_ptr eeprom_new(int kind, const char *path, int bus, uint32_t start);

// 0; -1 for a null device, EEPROM_NO_PATH for an empty path, or errno of open(2).
[[nodiscard]] int eeprom_open(eeprom_t *device);
int eeprom_close(eeprom_t *device); // 0, or -1 for a null device

// As pwrite(2) and pread(2); -1 for a null device as well.
[[nodiscard]] ssize_t eeprom_write(eeprom_t *device, off_t offset, const void *bytes, size_t length);
[[nodiscard]] ssize_t eeprom_read(eeprom_t *device, off_t offset, void *bytes, size_t length);

// Reads the record at offset into buffer, as an eeprom_tlv_t and its value. The record's total length; -1 at the end of
// the chain, for a record that is damaged or cut off, and for a buffer that is too small. buffer is written on success
// only.
[[nodiscard]] int eeprom_tlv_read(eeprom_t *device, uint32_t offset, void *buffer, int buffer_length);

// Walks the chain for the first record of type, and of instance unless that is 0. Its offset, with the record in buffer;
// otherwise the offset where the walk ended, with EEPROM_NOT_FOUND set.
[[nodiscard]] uint32_t eeprom_tlv_find(eeprom_t *device, uint16_t type, uint8_t instance, void *buffer,
                                       int buffer_length);

#endif
