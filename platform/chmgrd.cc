// chmgrd: the chassis manager of a device without chassis hardware. It makes the devices of a chassis model, publishes
// the shared block "chassis_info" that describes them, writes its pid file once all of that is there, and stays.
//
//   chmgrd [--foreground] --chassis MODEL [--device-number N]
//
// A restart finds block and devices and leaves them as they are. SIGTERM removes block, devices and pid file; a killed
// chmgrd leaves them to its successor. Log lines go to syslog, in the foreground to standard error too. Exit status: 0
// after SIGTERM, 1 when something could not be made (the log tells what), 2 for a wrong command line.
#include "chmgr/chmgr_api.h"
#include "common/tip_log.h"
#include "common/tip_pid.h"
#include "platform/chassis_devices.h"
#include "platform/chassis_model.h"
#include "platform/run_files.h"

#include <cerrno>
#include <charconv>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <getopt.h>
#include <memory>
#include <sys/mman.h>
#include <unistd.h>

namespace
{

constexpr char NAME[] = "chmgrd";
constexpr char MGMT_PORT[] = "eth0";

enum exit_status_t {
    EXIT_DONE = 0,
    EXIT_NOT_MADE = 1,
    EXIT_USAGE = 2,
};

struct options_t {
    bool foreground = false;
    const chassis_model_t *model = nullptr;
    uint16_t device = 0;
};

int usage()
{
    fprintf(stderr, "usage: chmgrd [--foreground] --chassis MODEL [--device-number N]\nmodels:");
    for (const chassis_model_t &model : chassis_models())
        fprintf(stderr, " %s", model.name);
    fprintf(stderr, "\n");
    return EXIT_USAGE;
}

bool parse_number(const char *text, uint16_t *number)
{
    const char *end = text + strlen(text);
    auto result = std::from_chars(text, end, *number);
    return result.ec == std::errc() && result.ptr == end;
}

bool options_read(int argc, char **argv, options_t *options)
{
    static const option long_options[] = {
        { "foreground", no_argument, nullptr, 'f' },
        { "chassis", required_argument, nullptr, 'm' },
        { "device-number", required_argument, nullptr, 'd' },
        {},
    };
    for (int letter; (letter = getopt_long(argc, argv, "fm:d:", long_options, nullptr)) != -1;) {
        switch (letter) {
        case 'f':
            options->foreground = true;
            break;
        case 'm':
            options->model = chassis_model_find(optarg);
            if (options->model == nullptr)
                fprintf(stderr, "chmgrd: no chassis model '%s'\n", optarg);
            break;
        case 'd':
            if (!parse_number(optarg, &options->device))
                return false;
            break;
        default:
            return false;
        }
    }
    return options->model != nullptr && optind == argc;
}

std::vector<chassis_port_device_t> devices_of(const chmgr_block_t &block, uint16_t device)
{
    std::vector<chassis_port_device_t> devices;
    for (uint32_t slot = 0; slot < block.num_slots; slot++) {
        for (uint32_t port = 0; port < block.slots[slot].num_ports; port++) {
            const chmgr_port_t &record = block.slots[slot].ports[port];
            devices.push_back({ record.kernel_name, record.mac });
        }
    }
    if (block.has_mgmt_port != 0)
        devices.push_back({ MGMT_PORT, chassis_mgmt_mac(device) });
    return devices;
}

// The block comes into being after the devices: whoever sees it finds all of them.
bool chassis_create(const options_t &options)
{
    auto filled = std::make_unique<chmgr_block_t>();
    chassis_fill(*options.model, options.device, filled.get());
    if (!chassis_devices_create(devices_of(*filled, options.device)))
        return false;
    int result = chmgr_block_map(O_RDWR | O_CREAT);
    if (result != CHMGR_MAP_OK) {
        tip_log("Cannot make the shared block %s (%d): %s; is /dev/shm mounted, writable and not full?",
                CHMGR_BLOCK_NAME, result, strerror(errno));
        return false;
    }
    chassis_publish(*options.model, *filled, chmgr_block());
    return pid_file_write(NAME, getpid());
}

void chassis_remove()
{
    daemon_pid_file_remove(NAME, 0);
    chmgr_block_unmap();
    (void)shm_unlink(CHMGR_BLOCK_NAME); // gone already is as good
    chassis_devices_remove();
}

void wait_for_end(const sigset_t &ends)
{
    int number = 0;
    while (sigwait(&ends, &number) != 0)
        continue;
    tip_log("Ending by signal %d", number);
}

} // namespace

int main(int argc, char **argv)
{
    options_t options;
    if (!options_read(argc, argv, &options))
        return usage();
    openlog(NAME, LOG_PID | LOG_NDELAY | (options.foreground ? LOG_PERROR : 0), LOG_LOCAL7);
    if (pid_t other = pid_file_live(NAME, NAME)) {
        tip_log("Another chmgrd runs with pid %d; end that one first", other);
        return EXIT_NOT_MADE;
    }
    if (!options.foreground && daemon(0, 0) != 0) {
        tip_log("Cannot go to the background: %s; try --foreground", strerror(errno));
        return EXIT_NOT_MADE;
    }
    sigset_t ends;
    sigemptyset(&ends);
    sigaddset(&ends, SIGTERM);
    sigaddset(&ends, SIGINT);
    sigprocmask(SIG_BLOCK, &ends, nullptr);
    if (!chassis_create(options))
        return EXIT_NOT_MADE;
    tip_log("Chassis %s is ready", options.model->name);
    wait_for_end(ends);
    chassis_remove();
    return EXIT_DONE;
}
