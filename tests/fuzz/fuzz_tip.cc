// Addresses, MACs, words and port names from arbitrary text, and the TLV chain of an EEPROM from arbitrary bytes.
//
// The first byte of the input picks the reader, so that one corpus file exercises one of them.
#include "common/ip_util.h"
#include "common/tip_eeprom.h"
#include "common/tip_if_name.h"
#include "common/tip_text.h"

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <sys/mman.h>
#include <unistd.h>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

namespace
{

void require(bool condition)
{
    if (!condition)
        __builtin_trap();
}

// What is taken for an address must come back from its own text.
void read_address(const std::string &text)
{
    ip_addr_t ip;
    ip_addr_t again;
    char shown[IP_ADDR_TEXT];
    if (ip_addr_parse(text.c_str(), &ip) == 0) {
        require(ip.family == 0 && ip_addr_is_zero(ip));
        return;
    }
    ip_addr_to_str(ip, shown, sizeof shown);
    require(ip_addr_parse(shown, &again) == 1 && ip_addr_compare(ip, again) == 0);
    ip_addr_from_str(&again, text.c_str());
}

void read_words(const std::string &text)
{
    uint8_t mac[MAC_BYTES];
    char shown[MAC_TEXT_SIZE];
    if (mac_from_str(text.c_str(), mac) != nullptr)
        require(mac_from_str(mac_to_text(mac, shown), mac) == mac);
    char word[8];
    str_first_word(text.data(), text.size(), word, sizeof word);
    require(strnlen(word, sizeof word) < sizeof word);
    char sim[16];
    (void)sim_name_from_ge(text.c_str(), sim, sizeof sim);
    char dump[256];
    require(hex_dump_to_buffer(text.data(), text.size(), dump, sizeof dump) < sizeof dump);
}

void read_chain(const uint8_t *data, size_t size)
{
    int fd = memfd_create("eeprom", 0);
    if (fd < 0 || write(fd, data, size) != static_cast<ssize_t>(size))
        abort();
    eeprom_ptr device = eeprom_new(EEPROM_KIND_PATH, ("/proc/self/fd/" + std::to_string(fd)).c_str(), 0, 0);
    require(eeprom_open(device.get()) == 0);
    uint8_t buffer[EEPROM_TLV_MAX];
    uint32_t found = eeprom_tlv_find(device.get(), 1, 0, buffer, sizeof buffer);
    require((found & ~EEPROM_NOT_FOUND) <= size);
    (void)eeprom_tlv_find(device.get(), 2, 3, buffer, 16);
    close(fd);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size == 0)
        return 0;
    std::string text(reinterpret_cast<const char *>(data + 1), size - 1);
    switch (data[0]) {
    case 'a':
        read_address(text);
        break;
    case 't':
        read_words(text);
        break;
    default:
        read_chain(data + 1, size - 1);
    }
    return 0;
}
