// The kernel's devices of a chassis. A port is a virtual Ethernet pair: the near end is the port, the far end, of the
// same name, lies in the network namespace "ports", where tests and topologies send and receive in its place; so are the
// devices of a modem and of a radio. Each port has a twin ("sim0_1" of "ge0_1"), on which the forwarding plane would hand
// frames to the host. Loopback devices loop0 to loop3 carry what stays in the device. A kernel without the dummy driver
// gives twins and loopback devices as pairs too, with a far end (loop0p) that stays down.
//
// What exists is taken as it is, wherever the near end has been moved to meanwhile.
#ifndef PLATFORM_CHASSIS_DEVICES_H
#define PLATFORM_CHASSIS_DEVICES_H

#include "platform/chassis_model.h"

#include <string>
#include <vector>

// Makes all devices, twins up; false when one could not be made. Each failure is logged with its command. Blocks while
// the commands run.
[[nodiscard]] bool chassis_devices_create(const std::vector<chassis_device_t> &ports,
                                          const std::vector<std::string> &twins);
// Removes all devices and the namespace; what is not there is no failure.
void chassis_devices_remove(const std::vector<std::string> &twins);

#endif
