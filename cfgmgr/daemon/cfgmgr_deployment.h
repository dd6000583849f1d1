// What differs from one deployment of the system to the next and is no configuration: decided when an image is made.
#ifndef CFGMGR_DAEMON_CFGMGR_DEPLOYMENT_H
#define CFGMGR_DAEMON_CFGMGR_DEPLOYMENT_H

#include <cstdint>

// Where a new edge device asks who it is.
inline constexpr char CFGMGR_ZTP_HOST[] = "ztp.corvane.example";
inline constexpr uint16_t CFGMGR_ZTP_PORT = 12346;

// The maker's number under 1.3.6.1.4.1; this one is set aside for documentation (RFC 5612).
inline constexpr uint32_t CFGMGR_ENTERPRISE_NUMBER = 32473;

// The product's own compiled MIBs, behind the common ones; joined by blanks.
#define CFGMGR_PRODUCT_MIBS "CORVANE-PRODUCTS-MIB.bin CORVANE-SYSTEM-MIB.bin CORVANE-TRAPS-MIB.bin"

#endif
