#include "platform/routing/backend.h"

#include "platform/routing/validate.h"

#include <algorithm>
#include <cstring>
#include <vector>

namespace
{

// Fields of a request that an answer does not repeat.
constexpr std::string_view request_only[] = { "get_first", "same_or_next" };

backend_result_t judge(void *, const message_row_t &row, const ProtobufCMessage &message)
{
    return message_validate(row, message);
}

backend_result_t agree(void *, const message_row_t &, const ProtobufCMessage &)
{
    return {};
}

std::string find_nothing(void *, const message_row_t &, const ProtobufCMessage &request)
{
    return show_nothing(request);
}

bool is_echoed(const ProtobufCFieldDescriptor &field)
{
    bool is_scalar = field.label != PROTOBUF_C_LABEL_REPEATED &&
                     (field.type == PROTOBUF_C_TYPE_UINT32 || field.type == PROTOBUF_C_TYPE_BOOL);
    return is_scalar &&
           std::find(std::begin(request_only), std::end(request_only), field.name) == std::end(request_only);
}

} // namespace

backend_t plain_backend()
{
    return {
        .self = nullptr,
        .config = agree,
        .validate = judge,
        .show = find_nothing,
        .clear = agree,
        .debug = agree,
    };
}

std::string show_nothing(const ProtobufCMessage &request)
{
    const ProtobufCMessageDescriptor &descriptor = *request.descriptor;
    std::vector<std::max_align_t> memory(descriptor.sizeof_message / sizeof(std::max_align_t) + 1);
    auto *answer = reinterpret_cast<ProtobufCMessage *>(memory.data());
    protobuf_c_message_init(&descriptor, answer);
    char *to = reinterpret_cast<char *>(answer);
    const char *from = reinterpret_cast<const char *>(&request);
    for (unsigned i = 0; i < descriptor.n_fields; i++) {
        const ProtobufCFieldDescriptor &field = descriptor.fields[i];
        size_t size = field.type == PROTOBUF_C_TYPE_BOOL ? sizeof(protobuf_c_boolean) : sizeof(uint32_t);
        if (!is_echoed(field))
            continue;
        memcpy(to + field.offset, from + field.offset, size);
        if (field.label == PROTOBUF_C_LABEL_OPTIONAL)
            memcpy(to + field.quantifier_offset, from + field.quantifier_offset, sizeof(protobuf_c_boolean));
    }
    return message_pack(*answer);
}
