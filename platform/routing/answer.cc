#include "platform/routing/answer.h"

#include "common/tip_log.h"
#include "platform/run_files.h"
#include "proto/routing_common.pb-c.h"

#include <cstring>

namespace
{

template <typename T> void field_set(ProtobufCMessage *message, const ProtobufCFieldDescriptor &field, T value)
{
    char *record = reinterpret_cast<char *>(message);
    memcpy(record + field.offset, &value, sizeof value);
}

std::string response_body(const backend_result_t &result)
{
    std::string text = result.text;
    MMsgResponse response = M_MSG_RESPONSE__INIT;
    response.code = result.code;
    response.message = text.empty() ? nullptr : text.data();
    return message_pack(response.base);
}

// The request again, with code and text in it: these messages are their own answers.
std::string echo_body(const message_row_t &row, const ProtobufCMessage &request, const backend_result_t &result)
{
    message_ptr answer = message_unpack(row, message_pack(request));
    const ProtobufCFieldDescriptor *code = protobuf_c_message_descriptor_get_field_by_name(row.descriptor, "code");
    const ProtobufCFieldDescriptor *text = protobuf_c_message_descriptor_get_field_by_name(row.descriptor, "message");
    if (!answer || code == nullptr || text == nullptr)
        return response_body(result);
    field_set(answer.get(), *code, result.code);
    char *record = reinterpret_cast<char *>(answer.get());
    protobuf_c_boolean has_code = 1;
    memcpy(record + code->quantifier_offset, &has_code, sizeof has_code);
    char *old = nullptr;
    memcpy(&old, record + text->offset, sizeof old);
    free(old);
    field_set(answer.get(), *text, result.text.empty() ? nullptr : strdup(result.text.c_str()));
    return message_pack(*answer);
}

// The answer of the count-th show line for the type; false behind the last.
bool show_reply_find(const std::vector<control_line_t> &lines, uint8_t type, size_t count, std::string *body)
{
    for (const control_line_t &line : lines) {
        if (line.word != CONTROL_SHOW_REPLY || (line.type != CONTROL_ANY_TYPE && line.type != type) || count-- != 0)
            continue;
        *body = line.is_file ? file_text(line.text, FRAME_MAX_BODY) : line.text;
        if (body->empty())
            tip_log("No show answer in %s", line.text.c_str());
        return !body->empty();
    }
    return false;
}

std::string show_body(const backend_t &backend, const std::vector<control_line_t> &lines, size_t *shows,
                      const message_row_t &row, const ProtobufCMessage &message)
{
    std::string body;
    if (!show_reply_find(lines, row.type, (*shows)++, &body))
        body = backend.show(backend.self, row, message);
    return body;
}

using ask_t = backend_result_t (*backend_t::*)(void *, const message_row_t &, const ProtobufCMessage &);

struct kind_row_t {
    ask_t ask; // null: other than by code and text
    bool is_echo;
};
constexpr kind_row_t kind_rows[NUM_MESSAGE_KINDS] = {
    { &backend_t::config, false }, { &backend_t::validate, false }, { nullptr, false },
    { &backend_t::clear, true },   { &backend_t::debug, true },     { nullptr, false },
};

// The line that decides instead of the backend, null without one.
const control_line_t *refusal_find(const std::vector<control_line_t> &lines, const message_row_t &row)
{
    const control_line_t *invalid =
        row.kind == MESSAGE_VALIDATE ? control_find(lines, CONTROL_INVALID, row.type) : nullptr;
    return invalid != nullptr ? invalid : control_find(lines, CONTROL_REFUSE, row.type);
}

std::string body_make(const backend_t &backend, const std::vector<control_line_t> &lines, size_t *shows,
                      const message_row_t &row, const ProtobufCMessage &message)
{
    const kind_row_t &kind = kind_rows[row.kind];
    if (kind.ask == nullptr)
        return show_body(backend, lines, shows, row, message);
    const control_line_t *refusal = refusal_find(lines, row);
    backend_result_t result = refusal != nullptr ? backend_result_t{ refusal->number, refusal->text }
                                                 : (backend.*kind.ask)(backend.self, row, message);
    return kind.is_echo ? echo_body(row, message, result) : response_body(result);
}

uint8_t bent(const std::vector<control_line_t> &lines, control_word_t word, uint8_t type, uint8_t value)
{
    const control_line_t *line = control_find(lines, word, type);
    return line != nullptr ? static_cast<uint8_t>(line->number) : value;
}

} // namespace

answer_t answer_make(const backend_t &backend, const std::vector<control_line_t> &lines, size_t *shows,
                     const message_row_t &row, const ProtobufCMessage &message)
{
    answer_t answer;
    frame_t frame;
    frame.module = bent(lines, CONTROL_WRONG_MODULE, row.type, row.module);
    frame.type = frame.seq = bent(lines, CONTROL_WRONG_TYPE, row.type, row.answer_type);
    frame.body = body_make(backend, lines, shows, row, message);
    answer.bytes = frame_bytes(frame);
    if (answer.bytes.empty())
        tip_log("The answer to %s is larger than a frame", row.descriptor->name);
    const control_line_t *size = control_find(lines, CONTROL_WRONG_SIZE, row.type);
    if (size != nullptr && !answer.bytes.empty())
        frame_set_length(&answer.bytes, static_cast<uint16_t>(size->number));
    const control_line_t *stall = control_find(lines, CONTROL_STALL, row.type);
    answer.delay_ms = stall != nullptr ? stall->number : 0;
    answer.is_death = control_find(lines, CONTROL_DIE, row.type) != nullptr;
    answer.is_close = control_find(lines, CONTROL_CLOSE, row.type) != nullptr || answer.bytes.empty();
    return answer;
}
