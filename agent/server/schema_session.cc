// Schema connections: the data model, for the client library.

#include "agent/server/dispatch.h"
#include "agent/server/server.h"

static answer_t give_schema(call_t &call)
{
    if (!call.in.finished())
        return malformed(call);
    schema_put_listing(datastore_schema(*call.server.store), call.out);
    return {};
}

static constexpr op_row_t rows_of_ops[] = {
    { WIRE_SCHEMA, give_schema },
};

std::span<const op_row_t> schema_ops()
{
    return rows_of_ops;
}
