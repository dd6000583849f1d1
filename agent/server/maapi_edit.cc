// MAAPI connections: the edits of transactions.
#include "agent/server/maapi.h"
#include "agent/server/server.h"

static answer_t set(call_t &call)
{
    uint32_t th = call.in.u32();
    std::string_view text = call.in.text();
    value_holder holder(call.in);
    if (!call.in.finished())
        return malformed(call);
    maapi_target_t target;
    answer_t answer = maapi_find_target(call, th, text, PATH_INSTANCE, &target);
    ds_error_t error;
    if (answer.code == CONFD_ERR_OK && !trans_set(*target.trans, target.path, holder.value, error))
        return refused(error.code, error.text);
    return answer;
}

static answer_t set_text(call_t &call)
{
    uint32_t th = call.in.u32();
    std::string_view text = call.in.text();
    std::string_view value = call.in.text();
    if (!call.in.finished())
        return malformed(call);
    maapi_target_t target;
    answer_t answer = maapi_find_target(call, th, text, PATH_INSTANCE, &target);
    if (answer.code != CONFD_ERR_OK)
        return answer;
    ds_error_t error;
    auto set = target.path.node()->is(WIRE_NODE_LEAF_LIST) ? trans_set_words : trans_set_text;
    return set(*target.trans, target.path, value, error) ? answer : refused(error.code, error.text);
}

using trans_edit_t = bool (*)(trans_t &trans, const path_t &path, ds_error_t &error);

template <trans_edit_t Edit, path_form_t Form> static answer_t edit(call_t &call)
{
    maapi_target_t target;
    answer_t answer = maapi_take_target(call, Form, &target);
    ds_error_t error;
    if (answer.code == CONFD_ERR_OK && !Edit(*target.trans, target.path, error))
        return refused(error.code, error.text);
    return answer;
}

static answer_t move(call_t &call)
{
    uint32_t th = call.in.u32();
    std::string_view text = call.in.text();
    auto where = static_cast<wire_move_t>(call.in.u8()); // judged by trans_move
    maapi_keys_t to(call.in);
    if (!call.in.finished() || !to.is_ok)
        return malformed(call);
    maapi_target_t target;
    answer_t answer = maapi_find_target(call, th, text, PATH_INSTANCE, &target);
    ds_error_t error;
    if (answer.code == CONFD_ERR_OK && !trans_move(*target.trans, target.path, where, to.keys, error))
        return refused(error.code, error.text);
    return answer;
}

static answer_t load(call_t &call)
{
    uint32_t th = call.in.u32();
    uint8_t format = call.in.u8();
    std::string document(call.in.text());
    if (!call.in.finished())
        return malformed(call);
    if (format != DOC_JSON && format != DOC_XML)
        return refused(CONFD_ERR_PROTOUSAGE, "unknown document format " + std::to_string(format));
    answer_t answer;
    trans_t *trans = maapi_find_trans(call, th, &answer);
    ds_error_t error;
    if (trans && !trans_load(*trans, static_cast<doc_format_t>(format), document, error))
        return refused(error.code, error.text);
    return answer;
}

static constexpr op_row_t rows_of_ops[] = {
    { WIRE_MAAPI_SET, set },
    { WIRE_MAAPI_SET_TEXT, set_text },
    { WIRE_MAAPI_CREATE, edit<trans_create, PATH_INSTANCE> },
    { WIRE_MAAPI_DELETE, edit<trans_delete, PATH_SUBTREE> },
    { WIRE_MAAPI_MOVE, move },
    { WIRE_MAAPI_LOAD, load },
};

std::span<const op_row_t> maapi_edit_ops()
{
    return rows_of_ops;
}
