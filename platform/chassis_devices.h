// The kernel's devices of a chassis. A port is a virtual Ethernet pair: the near end is the port, the far end, of the
// same name, lies in the network namespace "ports", where tests and topologies send and receive in its place. Loopback
// devices loop0 to loop3 carry what stays in the device; a kernel without the dummy driver gives them as pairs too,
// with a far end (loop0p) that stays down.
//
// What exists is taken as it is, wherever the near end has been moved to meanwhile.
#ifndef PLATFORM_CHASSIS_DEVICES_H
#define PLATFORM_CHASSIS_DEVICES_H

#include <cstdint>
#include <string>
#include <vector>

struct chassis_port_device_t {
    std::string name; // the kernel's
    uint64_t mac;
};

// Makes all devices; false when one could not be made. Each failure is logged with its command. Blocks while the
// commands run.
[[nodiscard]] bool chassis_devices_create(const std::vector<chassis_port_device_t> &ports);
// Removes all devices and the namespace; what is not there is no failure.
void chassis_devices_remove();

#endif
