// chmgrd: the chassis manager of a device without chassis hardware. It makes the devices of a chassis model, publishes
// the shared block "chassis_info" that describes them, writes its pid file once all of that is there, and stays.
//
//   chmgrd [--foreground] --chassis MODEL [--device-number N] [--modem] [--wlan]
//
// --modem gives the chassis a modem: device wwan0 and the flag file /var/run/qcqmi0; --wlan a radio: wifi0, with vap0 to
// vap3. The twins of ports are there and up before the pid file; their settings are made after it, since nothing waits
// for them and they take many commands. A restart finds block and devices and leaves them as they are. SIGTERM removes block, devices and pid file; a killed
// chmgrd leaves them to its successor. Log lines go to syslog, in the foreground to standard error too. Exit status: 0
// after SIGTERM, 1 when something could not be made (the log tells what), 2 for a wrong command line.
#include "chmgr/chmgr_api.h"
#include "chmgr/chmgr_sim.h"
#include "common/tip_file.h"
#include "common/tip_if_name.h"
#include "common/tip_log.h"
#include "common/tip_pid.h"
#include "common/tip_root.h"
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
#include <sys/resource.h>
#include <unistd.h>

namespace
{

constexpr char NAME[] = "chmgrd";
constexpr int TWINS_NICE = 10;
constexpr char MODEM_FLAG[] = "/var/run/qcqmi0";

enum exit_status_t {
    EXIT_DONE = 0,
    EXIT_NOT_MADE = 1,
    EXIT_USAGE = 2,
};

struct options_t {
    bool foreground = false;
    const chassis_model_t *model = nullptr;
    uint16_t device = 0;
    uint32_t extensions = 0; // chassis_extension_t
};

struct chassis_t {
    chassis_model_t model{}; // as plugged
    std::unique_ptr<chmgr_block_t> block;
    std::vector<chassis_device_t> devices;
    std::vector<std::string> twins;
};

int usage()
{
    fprintf(stderr, "usage: chmgrd [--foreground] --chassis MODEL [--device-number N] [--modem] [--wlan]\n"
                    "models:");
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

bool has_room(const options_t *options)
{
    if ((options->extensions & ~options->model->extensions) == 0)
        return true;
    fprintf(stderr, "chmgrd: %s does not take such a wireless module\n", options->model->name);
    return false;
}

bool options_read(int argc, char **argv, options_t *options)
{
    static const option long_options[] = {
        { "foreground", no_argument, nullptr, 'f' },
        { "chassis", required_argument, nullptr, 'm' },
        { "device-number", required_argument, nullptr, 'd' },
        { "modem", no_argument, nullptr, 'w' },
        { "wlan", no_argument, nullptr, 'l' },
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
        case 'w':
            options->extensions |= CHASSIS_MODEM;
            break;
        case 'l':
            options->extensions |= CHASSIS_WLAN;
            break;
        default:
            return false;
        }
    }
    return options->model != nullptr && optind == argc && has_room(options);
}

void ports_collect(chassis_t *chassis)
{
    for (uint32_t slot = 0; slot < chassis->block->num_slots; slot++) {
        for (uint32_t port = 0; port < chassis->block->slots[slot].num_ports; port++) {
            const chmgr_port_t &record = chassis->block->slots[slot].ports[port];
            chassis->devices.push_back({ record.kernel_name, record.mac });
            char twin[CHMGR_PORT_NAME_SIZE];
            if (sim_name_from_ge(record.kernel_name, twin, sizeof twin) != nullptr)
                chassis->twins.emplace_back(twin);
        }
    }
}

chassis_t chassis_plan(const options_t &options)
{
    chassis_t chassis;
    chassis.model = chassis_model_plugged(*options.model);
    chassis.block = std::make_unique<chmgr_block_t>();
    chassis_fill(chassis.model, options.device, chassis.block.get());
    ports_collect(&chassis);
    for (const auto &more : { chassis_host_ports(chassis.model, options.device),
                              chassis_extension_devices(options.extensions, options.device) })
        chassis.devices.insert(chassis.devices.end(), more.begin(), more.end());
    return chassis;
}

bool modem_flag_create()
{
    tip_path_t path = tip_path("%s", MODEM_FLAG);
    if (file_write_all(path.text, "", 0) == FILE_OK)
        return true;
    tip_log("Cannot make %s: %s", path.text, strerror(errno));
    return false;
}

// The block comes into being after the devices: whoever sees it finds all of them.
bool chassis_create(const options_t &options, const chassis_t &chassis)
{
    if (!chassis_devices_create(chassis.devices, chassis.twins))
        return false;
    if ((options.extensions & CHASSIS_MODEM) != 0 && !modem_flag_create())
        return false;
    int result = chmgr_block_map(O_RDWR | O_CREAT);
    if (result != CHMGR_MAP_OK) {
        tip_log("Cannot make the shared block %s (%d): %s; is /dev/shm mounted, writable and not full?",
                CHMGR_BLOCK_NAME, result, strerror(errno));
        return false;
    }
    chassis_publish(chassis.model, *chassis.block, chmgr_block());
    return pid_file_write(NAME, getpid());
}

// ends is blocked.
bool has_end_come(const sigset_t &ends)
{
    sigset_t pending;
    sigpending(&pending);
    sigandset(&pending, &pending, &ends);
    return sigisemptyset(&pending) == 0;
}

// A twin without its settings still carries frames; the log has the command that failed. The device boots meanwhile, and
// goes first.
void twins_set_up(const chassis_t &chassis, const sigset_t &ends)
{
    (void)setpriority(PRIO_PROCESS, 0, TWINS_NICE); // at worst both are as fast
    for (const std::string &twin : chassis.twins) {
        if (has_end_come(ends))
            return;
        (void)chmgr_sim_if_init(twin.c_str());
    }
    (void)setpriority(PRIO_PROCESS, 0, 0);
    tip_log("Twins of ports are set up");
}

void chassis_remove(const chassis_t &chassis)
{
    daemon_pid_file_remove(NAME, 0);
    chmgr_block_unmap();
    (void)shm_unlink(CHMGR_BLOCK_NAME); // gone already is as good
    (void)unlink(tip_path("%s", MODEM_FLAG).text);
    chassis_devices_remove(chassis.twins);
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
    chassis_t chassis = chassis_plan(options);
    if (!chassis_create(options, chassis))
        return EXIT_NOT_MADE;
    tip_log("Chassis %s is ready", options.model->name);
    twins_set_up(chassis, ends);
    wait_for_end(ends);
    chassis_remove(chassis);
    return EXIT_DONE;
}
