// One change of a routing object, on its way to a message: the steps that the handlers of BGP and OSPF share.
//
// The keys are taken one after the other, outermost first, each with the type that the model gives it; then the fields
// are filled in, and the message goes out, once, whatever has changed:
//
//     quagga_change_t change("BGP neighbor", { row, op, num_keys, keys, num_tv, tv });
//     MBgpNeighbor message = M_BGP_NEIGHBOR__INIT;
//     message.as_num = change.as_key();
//     message.neighbor = change.address_key();
//     change.fill(&message, neighbor_leaves);
//     return change.send(&message, DAEMON_ID_BGPD, BGP_NEIGHBOR);
#ifndef CFGMGR_ROUTING_CFGMGR_QUAGGA_CHANGE_H
#define CFGMGR_ROUTING_CFGMGR_QUAGGA_CHANGE_H

#include "cfgmgr/routing/cfgmgr_quagga_fill.h"

struct cfgmgr_vpn_t;

// What a handler is given.
struct quagga_delivery_t {
    tconfd_sub *row;
    int32_t op;
    uint8_t num_keys;
    confd_value_t *keys;
    uint16_t num_tv;
    confd_tag_value_t *tv;
};

class quagga_change_t
{
public:
    // name: of the object in traces; behind_keys: what stands behind the keys in them, which the traces of OSPF do
    // otherwise. Literals. Takes the first key, the VPN's.
    quagga_change_t(const char *name, const quagga_delivery_t &delivery, const char *behind_keys = ", ");

    // The next key. One too many, or of another type, is a bug and ends the process; so is, at the first use of what
    // stands below, a VPN that is not there. label: of the key in traces.
    [[nodiscard]] uint32_t as_key();
    [[nodiscard]] uint32_t enum_key(const char *label);
    [[nodiscard]] MIpAddress *address_key();
    [[nodiscard]] MIpPrefix *prefix_key();
    [[nodiscard]] const confd_value_t *next_key();
    // For keys that a handler reads by itself.
    [[gnu::format(printf, 2, 3)]] void note_key(const char *fmt, ...);

    // Behind the last key: logs the change and finds the VPN.
    [[nodiscard]] cfgmgr_vpn_t *vpn();
    [[nodiscard]] cfgmgrd_t *daemon() const;
    [[nodiscard]] bool is_created() const { return delivery_.op == MOP_CREATED; }
    [[nodiscard]] bool is_deleted() const { return delivery_.op == MOP_DELETED; }

    // What has changed, or that the object is gone, which goes out with the keys alone. Gives how many of the changed
    // leaves had a row.
    template <typename message_t> size_t fill(message_t *message, std::span<const quagga_leaf_t> rows)
    {
        (void)vpn(); // which a bug ends here rather than behind the leaves
        if (is_deleted()) {
            message->has_entry_is_deleted = 1;
            message->entry_is_deleted = 1;
            return 0;
        }
        return cfgmgr_quagga_fill(&fields, message, rows, delivery_.num_tv, delivery_.tv);
    }
    // 0, whatever becomes of the message.
    int32_t send(const void *message, uint32_t peer_id, uint32_t type);

    quagga_fill_t fields; // what the message points to

private:
    quagga_delivery_t delivery_;
    const char *behind_keys_;
    uint8_t next_ = 0;
    std::string keys_text_; // of the trace; empty without one
    cfgmgr_vpn_t *vpn_p_ = nullptr;
};

#endif
