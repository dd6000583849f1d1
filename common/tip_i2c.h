// The table of the machine's i2c buses by name, filled once per process. No lock: scan before other threads ask.
#ifndef COMMON_TIP_I2C_H
#define COMMON_TIP_I2C_H

#include <cstdint>

inline constexpr int I2C_MAX_BUSES = 64;

enum i2c_result_t {
    I2C_NONE = -1,      // no bus of that name
    I2C_AMBIGUOUS = -4, // more than one
};

// Fills the table with up to I2C_MAX_BUSES buses. 0, or all ones when the kernel lists none. Only the first call does
// anything; later ones give 0.
uint32_t i2c_scan();

// The number of the bus, or I2C_NONE, or I2C_AMBIGUOUS rather than the first of several.
[[nodiscard]] int i2c_bus_by_name(const char *name);

#endif
