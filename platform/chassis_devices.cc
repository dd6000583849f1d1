// Through ip(8). On a first start nothing is looked up, since the namespace is not there yet.
#include "platform/chassis_devices.h"

#include "common/tip_log.h"
#include "common/tip_root.h"
#include "common/tip_system.h"

#include <net/if.h>
#include <unistd.h>

namespace
{

// The far ends are one group, so that one command sets or removes them all. Removing a far end removes its near end.
constexpr char NETNS_ADD[] = "ip netns add ports";
constexpr char NETNS_DELETE[] = "ip netns delete ports";
constexpr char FAR_ENDS_UP[] = "ip -n ports link set group 7 up";
constexpr char FAR_ENDS_DELETE[] = "ip -n ports link delete group 7";
constexpr char BATCH[] = "ip -force -batch - <<'END'\n"; // a line a command; then END
constexpr char BATCH_END[] = "END";

constexpr const char *loops[] = { "loop0", "loop1", "loop2", "loop3" };

std::string port_add(const chassis_device_t &port)
{
    return "ip link add " + port.name + " address " + mac_number_text(port.mac) + " type veth peer name " + port.name +
           " netns ports group 7";
}

std::string far_end_show(const std::string &name)
{
    return "ip -n ports link show dev " + name + " >/dev/null 2>&1";
}

// As a line of a batch.
std::string plain_add(const std::string &name, bool has_dummy)
{
    return "link add " + name + (has_dummy ? " type dummy" : " type veth peer name " + name + "p") + "\n";
}

bool is_done(const std::string &command)
{
    return tip_system_ok(tip_system(command.c_str()));
}

bool must(const std::string &command)
{
    if (is_done(command))
        return true;
    tip_log("Command failed: %s; run it by hand to see why: it needs root and a kernel with veth and namespaces",
            command.c_str());
    return false;
}

bool has_namespace()
{
    return access(tip_path("%s/ports", TIP_NETNS_DIR).text, F_OK) == 0;
}

bool create_ports(const std::vector<chassis_device_t> &ports)
{
    bool is_restart = has_namespace();
    if (!is_restart && !must(NETNS_ADD))
        return false;
    bool all = true;
    for (const chassis_device_t &port : ports) {
        bool exists = is_restart && is_done(far_end_show(port.name));
        all = (exists || must(port_add(port))) && all;
    }
    return all && (ports.empty() || must(FAR_ENDS_UP));
}

bool batch_run(const std::string &lines)
{
    return lines.empty() || must(BATCH + lines + BATCH_END);
}

bool kernel_has_dummies(const std::string &first)
{
    if (is_done("ip link add " + first + " type dummy"))
        return true;
    tip_log("No dummy devices in this kernel: loop0 to loop3 are veth pairs, which carry no VLAN traffic");
    return false;
}

// The first one that is missing tells what the kernel can make, the others are made at once: starting ip(8) for each
// would take longer than all that it does.
std::string plain_lines(const std::vector<std::string> &names)
{
    bool is_known = false, has_dummy = false;
    std::string lines;
    for (const std::string &name : names) {
        if (if_nametoindex(name.c_str()) != 0)
            continue;
        if (!is_known)
            has_dummy = kernel_has_dummies(name);
        if (is_known || !has_dummy)
            lines += plain_add(name, has_dummy);
        is_known = true;
    }
    return lines;
}

// The loops are parents of VLANs, which can be neither up nor larger than their parent.
constexpr char LOOP_SETTINGS[] = " mtu 9000 up\n";

std::string up_lines(const std::vector<std::string> &twins)
{
    std::string lines;
    for (const char *name : loops)
        lines += std::string("link set ") + name + LOOP_SETTINGS;
    for (const std::string &name : twins)
        lines += "link set " + name + " up\n";
    return lines;
}

std::vector<std::string> plain_devices(const std::vector<std::string> &twins)
{
    std::vector<std::string> names(std::begin(loops), std::end(loops));
    names.insert(names.end(), twins.begin(), twins.end());
    return names;
}

} // namespace

bool chassis_devices_create(const std::vector<chassis_device_t> &ports, const std::vector<std::string> &twins)
{
    bool has_ports = create_ports(ports);
    return batch_run(plain_lines(plain_devices(twins)) + up_lines(twins)) && has_ports;
}

void chassis_devices_remove(const std::vector<std::string> &twins)
{
    if (has_namespace()) {
        (void)must(FAR_ENDS_DELETE);
        (void)must(NETNS_DELETE);
    }
    std::string lines;
    for (const std::string &name : plain_devices(twins)) {
        if (if_nametoindex(name.c_str()) != 0)
            lines += "link delete " + name + "\n";
    }
    (void)batch_run(lines); // what could not be removed is logged
}
