// Through ip(8). On a first start nothing is looked up, since the namespace is not there yet.
#include "platform/chassis_devices.h"

#include "common/tip_log.h"
#include "common/tip_root.h"
#include "common/tip_system.h"
#include "platform/chassis_model.h"

#include <net/if.h>
#include <unistd.h>

namespace
{

// The far ends are one group, so that one command sets or removes them all. Removing a far end removes its near end.
constexpr char NETNS_ADD[] = "ip netns add ports";
constexpr char NETNS_DELETE[] = "ip netns delete ports";
constexpr char FAR_ENDS_UP[] = "ip -n ports link set group 7 up";
constexpr char FAR_ENDS_DELETE[] = "ip -n ports link delete group 7";
constexpr char LINK_DELETE[] = "ip link delete "; // NAME

constexpr const char *loops[] = { "loop0", "loop1", "loop2", "loop3" };

std::string port_add(const chassis_port_device_t &port)
{
    return "ip link add " + port.name + " address " + mac_number_text(port.mac) + " type veth peer name " + port.name +
           " netns ports group 7";
}

std::string far_end_show(const std::string &name)
{
    return "ip -n ports link show dev " + name + " >/dev/null 2>&1";
}

std::string dummy_add(const std::string &name)
{
    return "ip link add " + name + " type dummy";
}

std::string loop_pair_add(const std::string &name)
{
    return "ip link add " + name + " type veth peer name " + name + "p";
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

bool create_ports(const std::vector<chassis_port_device_t> &ports)
{
    bool is_restart = has_namespace();
    if (!is_restart && !must(NETNS_ADD))
        return false;
    bool all = true;
    for (const chassis_port_device_t &port : ports) {
        bool exists = is_restart && is_done(far_end_show(port.name));
        all = (exists || must(port_add(port))) && all;
    }
    return all && (ports.empty() || must(FAR_ENDS_UP));
}

bool create_loops()
{
    bool has_dummy = true, all = true;
    for (const char *name : loops) {
        if (if_nametoindex(name) != 0)
            continue;
        if (has_dummy && is_done(dummy_add(name)))
            continue;
        if (has_dummy)
            tip_log("No dummy devices in this kernel: loop0 to loop3 are veth pairs, which carry no VLAN traffic");
        has_dummy = false;
        all = must(loop_pair_add(name)) && all;
    }
    return all;
}

} // namespace

bool chassis_devices_create(const std::vector<chassis_port_device_t> &ports)
{
    bool has_ports = create_ports(ports);
    return create_loops() && has_ports;
}

void chassis_devices_remove()
{
    if (has_namespace()) {
        (void)must(FAR_ENDS_DELETE);
        (void)must(NETNS_DELETE);
    }
    for (const char *name : loops) {
        if (if_nametoindex(name) != 0)
            (void)must(std::string(LINK_DELETE) + name);
    }
}
