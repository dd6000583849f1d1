// MAAPI connections: reads of transactions and of operational data, documents.
#include "agent/server/maapi.h"
#include "agent/server/server.h"

#include <algorithm>

static constexpr uint32_t MAX_NEXT_ENTRIES = 10000;

static answer_t get(call_t &call)
{
    maapi_target_t target;
    answer_t answer = maapi_take_target(call, PATH_INSTANCE, &target);
    ds_error_t error;
    if (answer.code == CONFD_ERR_OK &&
        !read_value(*call.server.store, maapi_view(target), target.path, call.out, error))
        return refused(error.code, error.text);
    return answer;
}

static answer_t exists(call_t &call)
{
    maapi_target_t target;
    answer_t answer = maapi_take_target(call, PATH_INSTANCE, &target);
    if (answer.code == CONFD_ERR_OK)
        call.out.u8(read_exists(*call.server.store, maapi_view(target), target.path));
    return answer;
}

static answer_t num_instances(call_t &call)
{
    maapi_target_t target;
    answer_t answer = maapi_take_target(call, PATH_LIST, &target);
    if (answer.code == CONFD_ERR_OK)
        call.out.u32(read_count(*call.server.store, maapi_view(target), target.path));
    return answer;
}

static answer_t next(call_t &call)
{
    uint32_t th = call.in.u32();
    std::string_view text = call.in.text();
    maapi_keys_t after(call.in);
    uint32_t most = std::min(call.in.u32(), MAX_NEXT_ENTRIES);
    if (!call.in.finished() || !after.is_ok)
        return malformed(call);
    maapi_target_t target;
    answer_t answer = maapi_find_target(call, th, text, PATH_LIST, &target);
    if (answer.code != CONFD_ERR_OK)
        return answer;
    std::vector<entry_keys_t> entries;
    ds_error_t error;
    if (!read_next(*call.server.store, maapi_view(target), target.path, after.keys, most, entries, error))
        return refused(error.code, error.text);
    call.out.u32(static_cast<uint32_t>(entries.size()));
    for (const entry_keys_t &keys : entries)
        value_put_keys(call.out, keys);
    return {};
}

// ---- documents

answer_t put_shown(call_t &call, view_t view, show_db_t db, uint8_t format, std::string_view path, bool with_defaults)
{
    if (format != DOC_JSON && format != DOC_XML)
        return refused(CONFD_ERR_PROTOUSAGE, "unknown document format " + std::to_string(format));
    path_t subtree;
    std::string text;
    ds_error_t error;
    if (!path_parse(datastore_schema(*call.server.store), path, PATH_SUBTREE, subtree, error) ||
        !read_show(*call.server.store, view, db, subtree, static_cast<doc_format_t>(format), with_defaults, text,
                   error))
        return refused(error.code, error.text);
    call.out.text(text);
    return {};
}

static constexpr uint32_t SHOW_DEFAULTS = 1; // of WIRE_MAAPI_SHOW

static answer_t show(call_t &call)
{
    uint32_t th = call.in.u32();
    std::string path(call.in.text());
    uint8_t format = call.in.u8();
    bool with_defaults = call.in.u32() & SHOW_DEFAULTS;
    if (!call.in.finished())
        return malformed(call);
    if (th == 0)
        return put_shown(call, {}, SHOW_OPERATIONAL, format, path, with_defaults);
    answer_t answer;
    trans_t *trans = maapi_find_trans(call, th, &answer);
    return trans ? put_shown(call, { VIEW_TRANS, trans }, SHOW_CONFIG, format, path, with_defaults) : answer;
}

static answer_t compare(call_t &call)
{
    uint32_t th = call.in.u32();
    if (!call.in.finished())
        return malformed(call);
    answer_t answer;
    trans_t *trans = maapi_find_trans(call, th, &answer);
    if (!trans)
        return answer;
    diff_ptr diff;
    ds_error_t error;
    if (!trans_diff(*trans, diff, error))
        return refused(error.code, error.text);
    std::vector<diff_line_t> lines = diff_lines(*diff);
    call.out.u32(static_cast<uint32_t>(lines.size()));
    for (const diff_line_t &line : lines) {
        call.out.u8(line.op);
        call.out.text(line.path);
        call.out.text(line.old_text);
        call.out.text(line.new_text);
    }
    return {};
}

static constexpr op_row_t rows_of_ops[] = {
    { WIRE_MAAPI_GET, get },   { WIRE_MAAPI_EXISTS, exists }, { WIRE_MAAPI_NUM_INSTANCES, num_instances },
    { WIRE_MAAPI_NEXT, next }, { WIRE_MAAPI_SHOW, show },     { WIRE_MAAPI_COMPARE, compare },
};

std::span<const op_row_t> maapi_read_ops()
{
    return rows_of_ops;
}
