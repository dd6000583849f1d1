// Device access first, the TLV chain on top of it. Log texts are fixed, line ends included.
#include "common/tip_eeprom.h"

#include "common/tip_log.h"
#include "common/tip_root.h"
#include "common/tip_text.h"

#include <arpa/inet.h>
#include <cerrno>
#include <fcntl.h>
#include <iterator>
#include <new>

namespace
{

constexpr int DEVICE_ADDRESS = 54; // the decimal digits that stand for the address in device paths
constexpr int DEFAULT_BUS[] = { 3, 6, 17 };
static_assert(std::size(DEFAULT_BUS) == EEPROM_KIND_PATH);

// Writes the device path; false for a kind that is not known and a path that does not fit.
bool fill_path(eeprom_t *device, int kind, const char *path)
{
    if (kind == EEPROM_KIND_PATH)
        return path != nullptr && strlcpy(device->path, path, sizeof device->path) < sizeof device->path;
    if (kind < 0 || kind >= EEPROM_KIND_PATH)
        return false;
    if (device->i2c_bus == 0)
        device->i2c_bus = DEFAULT_BUS[kind];
    tip_path_t full = tip_path("%s/%d-%04d/eeprom", TIP_I2C_DEVICES_DIR, device->i2c_bus, device->dev_addr);
    return strlcpy(device->path, full.text, sizeof device->path) < sizeof device->path;
}

bool read_header(eeprom_t *device, uint32_t offset, eeprom_tlv_t *header)
{
    if (eeprom_read(device, offset, header, sizeof *header) != static_cast<ssize_t>(sizeof *header)) {
        tip_log("ERROR: could not read TLV header starting at offset %d\n", static_cast<int>(offset));
        return false;
    }
    header->type = ntohs(header->type);
    header->length = ntohs(header->length);
    header->checksum = ntohs(header->checksum);
    return true;
}

bool is_length_ok(uint16_t length)
{
    return length >= sizeof(eeprom_tlv_t) && length <= EEPROM_TLV_MAX;
}

uint16_t sum_bytes(const void *bytes, size_t length)
{
    uint16_t sum = 0;
    for (size_t i = 0; i < length; i++)
        sum = static_cast<uint16_t>(sum + static_cast<const uint8_t *>(bytes)[i]);
    return sum;
}

// The byte order of the header's fields does not matter to the sum.
bool is_checksum_ok(const eeprom_tlv_t &header, const uint8_t *value, size_t value_length)
{
    auto computed = static_cast<uint16_t>(sum_bytes(&header, sizeof header) + sum_bytes(value, value_length) -
                                          sum_bytes(&header.checksum, sizeof header.checksum));
    if (computed == header.checksum)
        return true;
    tip_log("Checksum mismatch: computed 0x%x, found 0x%x\n", computed, header.checksum);
    return false;
}

} // namespace

eeprom_ptr eeprom_new(int kind, const char *path, int bus, uint32_t start)
{
    eeprom_ptr device(new (std::nothrow) eeprom_t{});
    if (device == nullptr || bus < 0)
        return nullptr;
    device->bus = bus;
    device->i2c_bus = bus;
    device->dev_addr = DEVICE_ADDRESS;
    device->start = start;
    return fill_path(device.get(), kind, path) ? std::move(device) : nullptr;
}

int eeprom_open(eeprom_t *device)
{
    if (device == nullptr) {
        tip_log("EEPROM device is NULL");
        return -1;
    }
    if (device->path[0] == '\0') {
        tip_log("Filename not found for dev: %d\n", device->dev_addr);
        return EEPROM_NO_PATH;
    }
    device->fd.reset(open(device->path, O_RDWR | O_CLOEXEC));
    if (device->fd.is_open())
        return 0;
    int error = errno;
    tip_log("Failed to open device file %s: %s\n", device->path, strerror(error));
    return error;
}

int eeprom_close(eeprom_t *device)
{
    if (device == nullptr) {
        tip_log("EEPROM device is NULL");
        return -1;
    }
    device->fd.reset();
    return 0;
}

ssize_t eeprom_write(eeprom_t *device, off_t offset, const void *bytes, size_t length)
{
    if (device == nullptr) {
        tip_log("EEPROM device is NULL");
        return -1;
    }
    ssize_t written = pwrite(device->fd.get(), bytes, length, offset);
    if (written < 0)
        tip_log("Failed to write to EEPROM - %s : %s\n", device->path, strerror(errno));
    return written;
}

ssize_t eeprom_read(eeprom_t *device, off_t offset, void *bytes, size_t length)
{
    if (device == nullptr) {
        tip_log("1: Device not setup yet");
        return -1;
    }
    ssize_t got = pread(device->fd.get(), bytes, length, offset);
    if (got < 0)
        tip_log("pread failed for filename '%s': %s\n", device->path, strerror(errno));
    return got;
}

int eeprom_tlv_read(eeprom_t *device, uint32_t offset, void *buffer, int buffer_length)
{
    eeprom_tlv_t header;
    if (buffer_length < static_cast<int>(sizeof header)) {
        tip_log("ERROR: buf_len too small: %d, must be at least %lu\n", buffer_length, sizeof header);
        return -1;
    }
    if (!read_header(device, offset, &header) || header.type == EEPROM_TLV_END || !is_length_ok(header.length))
        return -1;
    if (buffer_length < header.length) {
        tip_log("Error: buffer length too small.");
        return -1;
    }
    uint8_t value[EEPROM_TLV_MAX];
    size_t value_length = header.length - sizeof header;
    if (eeprom_read(device, offset + static_cast<off_t>(sizeof header), value, value_length) !=
        static_cast<ssize_t>(value_length))
        return -1;
    if (!is_checksum_ok(header, value, value_length))
        return -1;
    memcpy(buffer, &header, sizeof header);
    memcpy(static_cast<uint8_t *>(buffer) + sizeof header, value, value_length);
    return header.length;
}

uint32_t eeprom_tlv_find(eeprom_t *device, uint16_t type, uint8_t instance, void *buffer, int buffer_length)
{
    uint32_t offset = device != nullptr ? device->start : 0;
    while (offset < EEPROM_NOT_FOUND) {
        int length = eeprom_tlv_read(device, offset, buffer, buffer_length);
        if (length < 0)
            break;
        eeprom_tlv_t header;
        memcpy(&header, buffer, sizeof header);
        if (header.type == type && (instance == 0 || header.instance == instance))
            return offset;
        offset += static_cast<uint32_t>(length);
    }
    return offset | EEPROM_NOT_FOUND;
}
