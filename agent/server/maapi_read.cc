// MAAPI connections: reads of transactions and of operational data, documents.
#include "agent/server/maapi.h"
#include "agent/server/provider_read.h"
#include "agent/server/server.h"

#include <algorithm>

static constexpr uint32_t MAX_NEXT_ENTRIES = 10000;

// ---- where a read goes

struct read_target_t {
    uint32_t th = 0; // 0: operational data, outside of any transaction
    view_t view;
    path_t path;
    bool has_defaults = true; // a leaf that has only its default is read as that
};

static bool is_operational(const path_t &path)
{
    return path.node() && !path.node()->is(WIRE_NODE_CONFIG);
}

// Handle 0 reads operational data; a transaction of no session's needs no looking at then.
static answer_t find_outside(const call_t &call, std::string_view text, path_form_t form, read_target_t *target)
{
    ds_error_t error;
    if (!path_parse(datastore_schema(*call.server.store), text, form, target->path, error))
        return refused(error.code, error.text);
    if (!is_operational(target->path))
        return refused(CONFD_ERR_NOEXISTS, "configuration is read in a transaction; there is no transaction 0");
    return {};
}

static answer_t find_read(const call_t &call, uint32_t th, std::string_view text, path_form_t form,
                          read_target_t *target)
{
    target->th = th;
    if (th == 0)
        return find_outside(call, text, form, target);
    maapi_target_t found;
    answer_t answer = maapi_find_target(call, th, text, form, &found);
    if (answer.code != CONFD_ERR_OK)
        return answer;
    target->view = maapi_view(found);
    target->path = std::move(found.path);
    auto flags = call.conn.maapi.flags.find(th);
    target->has_defaults = flags == call.conn.maapi.flags.end() || !(flags->second & WIRE_TRANS_NO_DEFAULTS);
    return answer;
}

static answer_t take_read(call_t &call, path_form_t form, read_target_t *target)
{
    uint32_t th = call.in.u32();
    std::string_view text = call.in.text();
    return call.in.finished() ? find_read(call, th, text, form, target) : malformed(call);
}

static bool is_provided(const read_target_t &target)
{
    return target.path.node() && target.path.node()->callpoint;
}

static provider_target_t provided(const call_t &call, read_target_t &target)
{
    return { maapi_daemons(call, target.th), target.view, std::move(target.path) };
}

// Is the leaf to be told as one that has only its default?
static bool is_hidden_default(const call_t &call, const read_target_t &target)
{
    return !target.has_defaults && target.path.node() && target.path.node()->is(WIRE_NODE_LEAF | WIRE_NODE_LEAF_LIST) &&
           read_is_default(*call.server.store, target.view, target.path);
}

// ---- reads

static answer_t get(call_t &call)
{
    read_target_t target;
    answer_t answer = take_read(call, PATH_INSTANCE, &target);
    ds_error_t error;
    if (answer.code != CONFD_ERR_OK)
        return answer;
    if (is_provided(target))
        return provider_read_value(call, provided(call, target));
    if (is_hidden_default(call, target)) {
        confd_value_t value{};
        value.type = C_DEFAULT;
        wire_put_value(call.out, value);
        return {};
    }
    if (!read_value(*call.server.store, target.view, target.path, call.out, error))
        return refused(error.code, error.text);
    return {};
}

static answer_t exists(call_t &call)
{
    read_target_t target;
    answer_t answer = take_read(call, PATH_INSTANCE, &target);
    if (answer.code != CONFD_ERR_OK)
        return answer;
    if (is_provided(target))
        return provider_read_exists(call, provided(call, target));
    bool is_hidden = is_hidden_default(call, target);
    call.out.u8(!is_hidden && read_exists(*call.server.store, target.view, target.path));
    return {};
}

static answer_t num_instances(call_t &call)
{
    read_target_t target;
    answer_t answer = take_read(call, PATH_LIST, &target);
    if (answer.code != CONFD_ERR_OK)
        return answer;
    if (is_provided(target))
        return provider_read_count(call, provided(call, target));
    call.out.u32(read_count(*call.server.store, target.view, target.path));
    return {};
}

static answer_t next(call_t &call)
{
    uint32_t th = call.in.u32();
    std::string_view text = call.in.text();
    maapi_keys_t after(call.in);
    uint32_t most = std::min(call.in.u32(), MAX_NEXT_ENTRIES);
    if (!call.in.finished() || !after.is_ok)
        return malformed(call);
    read_target_t target;
    answer_t answer = find_read(call, th, text, PATH_LIST, &target);
    if (answer.code != CONFD_ERR_OK)
        return answer;
    if (is_provided(target))
        return provider_read_next(call, provided(call, target), after.keys, most);
    std::vector<entry_keys_t> entries;
    ds_error_t error;
    if (!read_next(*call.server.store, target.view, target.path, after.keys, most, entries, error))
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
