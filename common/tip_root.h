// The fixed absolute paths of the runtime library, and the directory that they lie under.
//
// Whatever here is read from /proc, /sys and /var/run goes through tip_path, so that a process can be pointed at a tree
// of its own in place of the device's. Paths that a caller hands in are the caller's and are taken as they are.
#ifndef COMMON_TIP_ROOT_H
#define COMMON_TIP_ROOT_H

#include <climits>
#include <cstddef>

#define TIP_RUN_DIR         "/var/run"
#define TIP_QUAGGA_RUN_DIR  "/var/run/quagga"
#define TIP_NETNS_DIR       "/var/run/netns"
#define TIP_INIT_NETNS      "/proc/1/ns/net"
#define TIP_BOARD_INFO      "/proc/octeon_info"
#define TIP_COREDUMP_FILTER "/proc/self/coredump_filter"
#define TIP_PCI_DEVICES_DIR "/sys/bus/pci/devices"
#define TIP_USB_DEVICES_DIR "/sys/bus/usb/devices"
#define TIP_I2C_CLASS_DIR   "/sys/class/i2c-dev"
#define TIP_I2C_DEVICES_DIR "/sys/bus/i2c/devices"

// Sets the directory for the whole process, once, before any other thread runs; "" (the start value) is the device's
// own root. Copied; a text that does not fit in PATH_MAX is refused with -1.
int tip_root_set(const char *root);

// A path built from a format that starts at the device's root. One that does not fit is empty, and so names no file.
struct tip_path_t {
    char text[PATH_MAX];
};
tip_path_t tip_path(const char *fmt, ...) __attribute__((format(printf, 1, 2)));

#endif
