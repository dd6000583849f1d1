// What the datastore client's tests share: a module context over a table of rows, and a handler that writes down its
// calls.
#ifndef TESTS_UNIT_TCONFD_ENV_H
#define TESTS_UNIT_TCONFD_ENV_H

#include "tconfd/tconfd_internal.h"
#include "tests/unit/fake_agent.h"
#include "tests/unit/log_capture.h"

#include <chrono>
#include <functional>
#include <gtest/gtest.h>
#include <thread>

struct handler_call_t {
    std::string path; // of the row
    int op;
    std::vector<uint64_t> keys;
    std::vector<std::string> values; // names of what was handed over: "mtu", "-mtu" for a deleted one, "<ip" and "ip>"
    bool operator==(const handler_call_t &) const = default;
};

inline std::ostream &operator<<(std::ostream &out, const handler_call_t &call)
{
    out << call.path << " op " << call.op << " keys";
    for (uint64_t key : call.keys)
        out << ' ' << key;
    for (const std::string &value : call.values)
        out << ' ' << value;
    return out;
}

inline std::vector<handler_call_t> handler_calls;
inline std::function<int(const handler_call_t &)> handler_verdict; // none: success

inline std::string value_name(const confd_tag_value_t &tv)
{
    std::string name = confd_hash2str(tv.tag.tag);
    switch (tv.v.type) {
    case C_NOEXISTS:
        return "-" + name;
    case C_XMLBEGIN:
        return "<" + name;
    case C_XMLBEGINDEL:
        return "<-" + name;
    case C_XMLEND:
        return name + ">";
    default:
        return name;
    }
}

inline int32_t recording_handler(tconfd_sub *row, int32_t op, uint8_t num_keys, confd_value_t *keys, uint16_t num_tv,
                                 confd_tag_value_t *tv)
{
    handler_call_t call{ row->path, op, {}, {} };
    for (int i = 0; i < num_keys; i++)
        call.keys.push_back(CONFD_GET_UINT64(&keys[i]));
    for (int i = 0; i < num_tv; i++)
        call.values.push_back(value_name(tv[i]));
    if (op == MOP_DELETED) {
        EXPECT_EQ(tv, nullptr);
    }
    handler_calls.push_back(call);
    return handler_verdict ? handler_verdict(call) : 0;
}

struct row_spec_t {
    const char *path;
    uint8_t num_keys;
    uint8_t priority;
    uint8_t flags = TCONFD_SUB_READ_DONE;
};

class tconfd_env : public testing::Test
{
protected:
    tconfd_env()
    {
        fake_agent_reset();
        log_clear();
        handler_calls.clear();
        handler_verdict = nullptr;
        tconfd_module_id_set(5);
        tconfd_debug_enable(1);
        ctx.subscr_fd = 1000;
        ctx.initial_read_subid = 1;
        agent().next_point = 2;
    }

    // A registration thread that was left behind may still read its rows: they live as long as the process.
    ~tconfd_env() override { kept_rows().push_back(std::move(rows)); }
    static std::vector<std::vector<tconfd_sub>> &kept_rows()
    {
        static auto *kept = new std::vector<std::vector<tconfd_sub>>;
        return *kept;
    }

    // Points as the registration would give them: from 2 on, one or two per row.
    void lay_out(const std::vector<row_spec_t> &specs)
    {
        for (const row_spec_t &spec : specs) {
            tconfd_sub row{};
            snprintf(row.path, sizeof row.path, "%s", spec.path);
            row.handler = recording_handler;
            row.num_keys = spec.num_keys;
            row.priority = spec.priority;
            row.flags = spec.flags;
            row.ctx = &ctx;
            row.add_subid = static_cast<uint32_t>(agent().next_point++);
            if (spec.priority >= 16)
                row.del_subid = static_cast<uint32_t>(agent().next_point++);
            rows.push_back(row);
        }
        rows.push_back({});
        ctx.reg.subs = rows.data();
    }

    void deliver(const std::vector<int> &points, cdb_sub_notification type = CDB_SUB_COMMIT, int flags = 0)
    {
        agent().points = points;
        agent().type = type;
        agent().flags = flags;
        tconfd_sub_cb(ctx.subscr_fd, EV_READ, &ctx);
    }

    // Until the read thread has ended.
    void wait_for_reads()
    {
        for (int i = 0; i < 2000 && __atomic_load_n(&ctx.live_threads, __ATOMIC_ACQUIRE) > 0; i++)
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }

    static void set_read_bits(uint32_t bits)
    {
        confd_value_t value{};
        CONFD_SET_BIT32(&value, bits);
        agent().leaves["/tconfd-initial-read-priority"] = value;
    }

    static constexpr int TRIGGERED = CDB_SUB_FLAG_TRIGGER;
    tconfd_ctx ctx{};
    std::vector<tconfd_sub> rows;
};

#endif
