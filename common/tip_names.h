// Names of the small enumerations that the whole system shares: colours and encapsulations of transports, personalities
// of devices, services. One table each; texts are fixed.
#ifndef COMMON_TIP_NAMES_H
#define COMMON_TIP_NAMES_H

#include <cstdint>

// What a device is. 0, and anything above the last, is "Unknown".
enum personality_t : uint32_t {
    PERSONALITY_NONE = 0,
    PERSONALITY_KREST = 1,   // edge router
    PERSONALITY_TARN = 2,    // hub
    PERSONALITY_LODEST = 3,  // controller
    PERSONALITY_ORBEL = 4,   // orchestrator
    PERSONALITY_QUORVIX = 5, // management system
    PERSONALITY_ZTP = 6,     // zero-touch provisioning
    PERSONALITY_PENDRY = 7,  // container host
};

enum encap_t : uint8_t {
    ENCAP_NONE = 0,
    ENCAP_GRE = 1,
    ENCAP_IPSEC = 2,
};

// The long name of a colour, 0 "invalid" to 22 "private6"; "--" for any other value.
const char *color_name(uint32_t color);
// The colour, 1..22, whose short name text begins with; 0 if none. The short names are the configuration's and differ
// from the long ones on purpose: "metro-ethernet" does not map back, "met-eth" does.
uint8_t color_from_name(const char *text);

const char *encap_name(uint32_t encap);    // "--" for an unknown one
uint8_t encap_from_name(const char *text); // ENCAP_NONE for an unknown one
const char *personality_name(uint32_t personality);
const char *service_name(uint32_t service); // 1..8; null for any other value

#endif
