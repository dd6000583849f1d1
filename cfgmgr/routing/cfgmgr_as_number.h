// AS numbers as they stand in a configuration: one number, or the high and the low half joined by a dot (RFC 5396).
#ifndef CFGMGR_ROUTING_CFGMGR_AS_NUMBER_H
#define CFGMGR_ROUTING_CFGMGR_AS_NUMBER_H

#include <cstddef>
#include <cstdint>
#include <string_view>

// Room that a converted list of AS numbers takes, its end included.
inline constexpr size_t AS_LIST_SIZE = 128;

// One number as it is, of two the first shifted left by 16 or'ed with the second; 0 for a text without a number. The
// ranges are the model's.
[[nodiscard]] uint32_t cfgmgr_as_number(std::string_view text);

// AS numbers joined by blanks, as plain numbers each followed by a blank. False for a text that has none, a sign, a
// number that is 0 or none or has something behind it, or a half above 65535, and for one that does not fit out; out is not to be used then.
[[nodiscard]] bool cfgmgr_convert_as_prepend_str(const char *text, char *out, size_t size);

#endif
