// Tables of names, indexed by value.
#include "common/tip_names.h"

#include <cstring>
#include <iterator>

namespace
{

struct color_row_t {
    const char *short_name; // as configured; null: cannot be configured
    const char *long_name;
};

constexpr color_row_t colors[] = {
    { nullptr, "invalid" },
    { "default", "default" },
    { "mpls", "mpls" },
    { "met-eth", "metro-ethernet" },
    { "biz-int", "biz-internet" },
    { "pub-int", "public-internet" },
    { "lte", "lte" },
    { "3g", "3g" },
    { "red", "red" },
    { "green", "green" },
    { "blue", "blue" },
    { "gold", "gold" },
    { "silver", "silver" },
    { "bronze", "bronze" },
    { "custom1", "custom1" },
    { "custom2", "custom2" },
    { "custom3", "custom3" },
    { "private1", "private1" },
    { "private2", "private2" },
    { "private3", "private3" },
    { "private4", "private4" },
    { "private5", "private5" },
    { "private6", "private6" },
};
static_assert(std::size(colors) == 23);

constexpr const char *encaps[] = { "--", "gre", "ipsec" };
static_assert(std::size(encaps) == ENCAP_IPSEC + 1);

constexpr const char *personalities[] = { "Unknown", "Krest", "Tarn", "Lodest", "Orbel", "Quorvix", "ZTP", "Pendry" };
static_assert(std::size(personalities) == PERSONALITY_PENDRY + 1);

constexpr const char *services[] = { nullptr, "FW", "IDS", "IDP", "netsvc1", "netsvc2", "netsvc3", "netsvc4", "TE" };

template <size_t count> const char *name_at(const char *const (&names)[count], uint32_t index, const char *otherwise)
{
    return index < count ? names[index] : otherwise;
}

} // namespace

const char *color_name(uint32_t color)
{
    return color < std::size(colors) ? colors[color].long_name : "--";
}

uint8_t color_from_name(const char *text)
{
    for (size_t color = 1; color < std::size(colors); color++) {
        const char *name = colors[color].short_name;
        if (strncmp(text, name, strlen(name)) == 0)
            return static_cast<uint8_t>(color);
    }
    return 0;
}

const char *encap_name(uint32_t encap)
{
    return name_at(encaps, encap, "--");
}

uint8_t encap_from_name(const char *text)
{
    for (uint8_t encap = ENCAP_GRE; encap <= ENCAP_IPSEC; encap++)
        if (strcmp(text, encaps[encap]) == 0)
            return encap;
    return ENCAP_NONE;
}

const char *personality_name(uint32_t personality)
{
    return name_at(personalities, personality, "Unknown");
}

const char *service_name(uint32_t service)
{
    return name_at(services, service, nullptr);
}
