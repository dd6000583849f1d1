// The report of all handles, for the operator who asks what the daemon is connected to.
#include "common/msgq_internal.h"

#include <cstdarg>
#include <cstdio>

namespace
{

struct printer_t {
    msgq_print_fn_t print;
    void *arg;
};

struct counter_row_t {
    const char *name;
    uint32_t msgq_counters_t::*value;
};

constexpr counter_row_t counter_rows[] = {
    { "tx_msg", &msgq_counters_t::tx_msg },
    { "tx_fail", &msgq_counters_t::tx_fail },
    { "rx_msg", &msgq_counters_t::rx_msg },
    { "rx_fail", &msgq_counters_t::rx_fail },
    { "tx_resched", &msgq_counters_t::tx_resched },
    { "tx_write_cb", &msgq_counters_t::tx_write_cb },
    { "rx_register", &msgq_counters_t::rx_register },
    { "tx_register", &msgq_counters_t::tx_register },
    { "conn_up", &msgq_counters_t::conn_up },
    { "conn_down", &msgq_counters_t::conn_down },
    { "conn_close", &msgq_counters_t::conn_close },
    { "conn_exist", &msgq_counters_t::conn_exist },
    { "msg_allocs", &msgq_counters_t::msg_allocs },
    { "msg_frees", &msgq_counters_t::msg_frees },
    { "alloc_failed", &msgq_counters_t::alloc_failed },
    { "tx_queued", &msgq_counters_t::tx_queued },
    { "tx_dequeued", &msgq_counters_t::tx_dequeued },
    { "tx_queue_failed", &msgq_counters_t::tx_queue_failed },
    { "rx_read_helper_cb", &msgq_counters_t::rx_read_helper_cb },
    { "rx_read_helper_scheduled", &msgq_counters_t::rx_read_helper_scheduled },
};
static_assert(sizeof(msgq_counters_t) == std::size(counter_rows) * sizeof(uint32_t));

constexpr const char *list_names[] = { "registered", "unregistered", "temporary" };
static_assert(std::size(list_names) == MSGQ_LISTS);

__attribute__((format(printf, 2, 3))) void print(const printer_t *to, const char *fmt, ...)
{
    char text[512];
    va_list args;
    va_start(args, fmt);
    (void)vsnprintf(text, sizeof text, fmt, args);
    va_end(args);
    to->print(to->arg, text);
}

const char *type_name(uint32_t type)
{
    if (type == MSGQ_HANDLE_TYPE_SERVER)
        return "SERVER";
    return type == MSGQ_HANDLE_TYPE_CLIENT ? "CLIENT" : "Unknown";
}

unsigned queue_length(const msgq_t *msgq_p)
{
    unsigned length = 0;
    for (const msgq_tx_node_t *node_p = msgq_p->tx_head_p; node_p != nullptr; node_p = node_p->next)
        ++length;
    return length;
}

void dump_state(const printer_t *to, const msgq_t *msgq_p)
{
    print(to, "\n     no_register %d use_app_header %d blocking %d down_pending %d", msgq_p->no_register,
          msgq_p->use_app_header, msgq_p->blocking, msgq_p->down_pending);
    print(to, "\n     reading %u of %u bytes, %u messages to send", msgq_p->bytes_read, msgq_p->msg_size,
          queue_length(msgq_p));
}

void dump_handle(const printer_t *to, const msgq_t *msgq_p, msgq_list_id_t list, uint32_t detail)
{
    print(to, "\n   %p %s src %s tgt %s fd %d %s", static_cast<const void *>(msgq_p), type_name(msgq_p->type),
          daemon_id_to_name(msgq_p->src), daemon_id_to_name(msgq_p->tgt), msgq_p->sock_fd, list_names[list]);
    if (msgq_p->sock_type == MSGQ_SOCK_TCP)
        print(to, " ip %s port %u", msgq_p->ip, msgq_p->port);
    else
        print(to, " path %s", msgq_p->path);
    if (detail != 0)
        dump_state(to, msgq_p);
    for (const counter_row_t &row : counter_rows)
        print(to, "\n     %s: %u", row.name, msgq_p->counters.*row.value);
}

} // namespace

void msgq_dump_all(msgq_print_fn_t print_text, void *print_arg, uint32_t detail)
{
    const printer_t to = { print_text, print_arg };
    print(&to, "\n   =============");
    print(&to, "\n   DUMPING MSGQs");
    const msgq_inst_t *inst_p = msgq_instance();
    for (unsigned i = 0; inst_p != nullptr && i < MSGQ_LISTS; ++i) {
        auto list = static_cast<msgq_list_id_t>(i);
        for (msgq_t *msgq_p = msgq_list_first(inst_p, list); msgq_p; msgq_p = msgq_list_next(msgq_p, list))
            dump_handle(&to, msgq_p, list, detail);
    }
    print(&to, "\n");
}
