// The real chmgrd in mount and network namespaces of its own, judged by the devices and the block that others see.
#include <cstdio>
#include <gtest/gtest.h>
#include <memory>
#include <string>

namespace
{

constexpr char SETUP[] =
    "mount -t tmpfs run /run && mount -t tmpfs shm /dev/shm && mkdir /run/netns\n"
    "start() { \"$CHMGRD\" --foreground --chassis \"$@\" 2>>/run/log & pid=$!; }\n"
    "ready() { for i in $(seq 500); do grep -sqx $pid /run/chmgrd.0.pid && return; sleep 0.02; done; cat /run/log; }\n"
    // block OFFSET WIDTH FORMAT; names leaves out the far ends of a kernel without dummy devices
    "block() { od -An -v -j $1 -N $2 -t $3 /dev/shm/chassis_info | xargs; }\n"
    "names() { \"$@\" -br link | cut -d' ' -f1 | cut -d@ -f1 | grep -vE '(loop.|sim._.)p' | sort | xargs; }\n"
    "twins_done() { for i in $(seq 500); do grep -q 'Twins of ports are set up' /run/log && return; sleep 0.02; done; "
    "}\n";

struct pipe_closer {
    void operator()(FILE *file) const { pclose(file); }
};

// What the script prints; a user without privilege is root of a user namespace.
std::string run(const std::string &script)
{
    setenv("CHMGRD", CHMGRD_PROGRAM, 1);
    setenv("SCRIPT", (SETUP + script).c_str(), 1);
    std::unique_ptr<FILE, pipe_closer> out(
        popen("unshare --user --map-root-user --mount --net --pid --kill-child --fork --mount-proc "
              "timeout 60 bash -c \"$SCRIPT\" 2>&1",
              "r"));
    std::string text;
    for (int c; (c = fgetc(out.get())) != EOF;)
        text += static_cast<char>(c);
    return text;
}

bool has_namespaces()
{
    return run("echo yes") == "yes\n";
}

TEST(Chmgrd, makes_the_ports_that_the_block_names)
{
    if (!has_namespaces())
        GTEST_SKIP() << "no namespaces here";
    EXPECT_EQ(run("start krest-S1; ready; names ip; names ip -n ports; block 12 8 d4; block 178 2 d2\n"
                  "dd if=/dev/shm/chassis_info bs=1 skip=$((24 + 296 + 264 + 56)) count=5 status=none; echo\n"
                  "ip -br link show dev ge0_1 | tr -s ' ' | cut -d' ' -f3"),
              "ge0_0 ge0_1 ge0_2 ge0_3 ge0_4 lo loop0 loop1 loop2 loop3 sim0_0 sim0_1 sim0_2 sim0_3 sim0_4\n"
              "ge0_0 ge0_1 ge0_2 ge0_3 ge0_4 lo\n"
              "3 1\n"
              "5\n"
              "ge0_1\n"
              "02:43:00:00:00:01\n");
}

TEST(Chmgrd, frames_pass_between_a_port_and_its_far_end)
{
    if (!has_namespaces())
        GTEST_SKIP() << "no namespaces here";
    EXPECT_EQ(run("start krest-V1; ready; ip addr add 198.18.0.1/24 dev ge0_7; ip link set ge0_7 up\n"
                  "ip -n ports addr add 198.18.0.2/24 dev ge0_7; for i in $(seq 100); do echo >/dev/udp/198.18.0.2/9\n"
                  "ip neigh show 198.18.0.2 | grep -q lladdr && echo passed && break; sleep 0.05; done"),
              "passed\n");
}

TEST(Chmgrd, twins_are_up_at_once_and_then_set_up_for_what_the_forwarding_plane_sends)
{
    if (!has_namespaces())
        GTEST_SKIP() << "no namespaces here";
    EXPECT_EQ(
        run("show() { cat /proc/sys/net/ipv$1/conf/sim0_3/$2; }\n"
            "start krest-M1; ready; ip -o link show up | grep -c sim0_; twins_done\n"
            "show 4 forwarding; show 4 rp_filter; show 4 accept_source_route; show 6 disable_ipv6; show 6 forwarding\n"
            "ip maddr show dev sim0_3 | grep -oE '01:00:5e:00:0(0:0[56d]|0:12|1:2[78])' | sort | xargs\n"
            "ethtool -k sim0_3 | grep -E '^generic-(seg|rec)' | cut -d: -f2 | xargs; grep -c failed /run/log"),
        "8\n"
        "0\n1\n0\n1\n0\n"
        "01:00:5e:00:00:05 01:00:5e:00:00:06 01:00:5e:00:00:0d 01:00:5e:00:00:12 01:00:5e:00:01:27 "
        "01:00:5e:00:01:28\n"
        "off off\n0\n");
}

TEST(Chmgrd, modem_and_radio_come_and_go_with_their_options)
{
    if (!has_namespaces())
        GTEST_SKIP() << "no namespaces here";
    EXPECT_EQ(
        run("others() { names ip | xargs -n1 | grep -v 'ge\\|loop\\|sim' | xargs; }\n"
            "start krest-S1 --modem --wlan; ready; others; ls /run/qcqmi0; ip netns add 5; ip link set wwan0 netns 5\n"
            "kill $pid; wait $pid; others; names ip -n 5; ls /run/qcqmi0 2>&1 | grep -o 'No such file'\n"
            "start krest-S1 --wlan; ready; others; ls /run | grep qc\n"
            "start krest-L1 --modem; wait $pid; echo $?"),
        "lo vap0 vap1 vap2 vap3 wifi0 wwan0\n/run/qcqmi0\n"
        "lo\nlo\nNo such file\n"
        "lo vap0 vap1 vap2 vap3 wifi0\n"
        "2\n");
}

TEST(Chmgrd, files_tell_what_is_plugged_into_the_slots_that_take_modules)
{
    if (!has_namespaces())
        GTEST_SKIP() << "no namespaces here";
    EXPECT_EQ(run("mount -t tmpfs default /etc/default; echo 2x10GE >/etc/default/pim0; echo 4x1GE >/etc/default/pim1\n"
                  "echo 8x1GE >/etc/default/pim2\n"
                  "start krest-L1; ready; names ip -n ports"),
              "eth0 ge0_0 ge0_1 ge2_0 ge2_1 ge2_2 ge2_3 lo\n");
}

TEST(Chmgrd, successor_of_a_killed_one_changes_nothing)
{
    if (!has_namespaces())
        GTEST_SKIP() << "no namespaces here";
    EXPECT_EQ(run("addresses() { ip -n ports -o link | grep -o 'ether [^ ]*'; }\n" // random, so a new pair would differ
                  "start krest-V1; ready; ip netns add 5; ip link set ge0_3 netns 5\n"
                  "printf device | dd of=/dev/shm/chassis_info bs=1 seek=21372 conv=notrunc status=none\n"
                  "kill -9 $pid; wait $pid 2>/dev/null; before=$(addresses)\n"
                  "start krest-V1; ready; [ \"$before\" = \"$(addresses)\" ] && echo same\n"
                  "names ip -n 5; dd if=/dev/shm/chassis_info bs=1 skip=21372 count=6 status=none"),
              "same\nge0_3 lo\ndevice");
}

TEST(Chmgrd, leaves_nothing_behind_when_told_to_end)
{
    if (!has_namespaces())
        GTEST_SKIP() << "no namespaces here";
    EXPECT_EQ(run("start krest-L1; ready; ip netns add 5; ip link set ge1_0 netns 5; kill $pid; wait $pid; echo $?\n"
                  "names ip; names ip -n 5; ls /dev/shm; ls /run/netns; ls /run | grep pid"),
              "0\nlo\nlo\n5\n");
}

TEST(Chmgrd, software_chassis_has_ports_of_no_slot)
{
    if (!has_namespaces())
        GTEST_SKIP() << "no namespaces here";
    EXPECT_EQ(run("start software; ready; names ip; block 12 8 d4; block 7593 1 u1"),
              "eth0 eth1 eth2 lo loop0 loop1 loop2 loop3\n0 0\n1\n");
}

} // namespace
