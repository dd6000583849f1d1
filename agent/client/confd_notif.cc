// Sending notifications: frames that are not answered, on a worker socket whose callbacks another thread may be serving.
//
// What the agent thinks of a notification is seen in its log only, so that what can be judged here is judged here.
#include "agent/client/confd_notif.h"

#include "agent/client/confd_daemon.h"

static constexpr int MAX_VALUES = 100000; // of one notification

// One element from its beginning to its end, which is the last value.
static bool is_one_element(const confd_tag_value_t *values, int n)
{
    int depth = 0;
    for (int i = 0; i < n; i++) {
        depth += (values[i].v.type == C_XMLBEGIN) - (values[i].v.type == C_XMLEND);
        if (depth == 0)
            return i == n - 1 && i > 0;
    }
    return false;
}

static int send_one_way(confd_notification_ctx *nctx, wire_op_t op, const wire_writer_t &payload)
{
    if (payload.bytes.size() > WIRE_MAX_FRAME)
        return confd_fail(CONFD_ERR_TOOBIG, "a notification of %zu bytes", payload.bytes.size());
    return confd_io_send(nctx->fd, WIRE_KIND_WORKER, 0, wire_frame(op, 0, 0, payload.bytes));
}

int confd_notification_send(struct confd_notification_ctx *nctx, const struct confd_datetime *time,
                            const confd_tag_value_t *values, int nvalues)
{
    if (nctx == nullptr || time == nullptr || !nctx->is_stream)
        return confd_fail(CONFD_ERR_PROTOUSAGE, "a notification needs a stream and a time");
    if (values == nullptr || nvalues > MAX_VALUES || !is_one_element(values, nvalues))
        return confd_fail(CONFD_ERR_PROTOUSAGE, "the %d values are no notification from its beginning to its end",
                          nvalues);
    confd_value_t when = {};
    when.type = C_DATETIME;
    when.val.datetime = *time;
    wire_writer_t payload;
    payload.u32(nctx->handle);
    wire_put_value(payload, when);
    wire_put_tag_values(payload, values, static_cast<size_t>(nvalues));
    return send_one_way(nctx, WIRE_NOTIFY_SEND, payload);
}

int confd_notification_set_snmp_notify_name(struct confd_notification_ctx *nctx, const char *notify_name)
{
    if (nctx == nullptr || nctx->is_stream)
        return confd_fail(CONFD_ERR_PROTOUSAGE, "only SNMP notifications have a notify name");
    std::lock_guard guard(nctx->mutex);
    nctx->notify_name = notify_name != nullptr ? notify_name : "";
    return CONFD_OK;
}

// A name in a fixed field, which may be filled to the brim.
static std::string_view name_of(const confd_snmp_varbind &varbind)
{
    return { varbind.name, strnlen(varbind.name, sizeof varbind.name) };
}

int confd_notification_send_snmp(struct confd_notification_ctx *nctx, const char *notification,
                                 const struct confd_snmp_varbind *varbinds, int num_vars)
{
    if (nctx == nullptr || nctx->is_stream || notification == nullptr)
        return confd_fail(CONFD_ERR_PROTOUSAGE, "an SNMP notification needs its registration and a name");
    if (num_vars < 0 || num_vars > MAX_VALUES || (num_vars > 0 && varbinds == nullptr))
        return confd_fail(CONFD_ERR_PROTOUSAGE, "%d variables of %s", num_vars, notification);
    wire_writer_t payload;
    payload.u32(nctx->handle);
    {
        std::lock_guard guard(nctx->mutex);
        payload.text(nctx->notify_name);
    }
    payload.text(notification);
    payload.u32(static_cast<uint32_t>(num_vars));
    for (int i = 0; i < num_vars; i++) {
        if (varbinds[i].type != CONFD_SNMP_VARIABLE)
            return confd_fail(CONFD_ERR_PROTOUSAGE, "variable %d of %s is not given by its name", i, notification);
        payload.text(name_of(varbinds[i]));
        wire_put_value(payload, varbinds[i].val);
    }
    return send_one_way(nctx, WIRE_NOTIFY_SNMP, payload);
}
