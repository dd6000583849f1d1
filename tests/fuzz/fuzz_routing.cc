// Arbitrary bytes into what the routing peer reads: frames with messages of every kind, messages of the kernel, control
// files, as-path expressions. The first byte of an input picks one, the rest is read.
//
// A frame that is understood must be answered by one frame that reads back, and its JSON must have closed all that it
// opened. The events of kernel messages must lead to what a replay tells. What an expression is refused with can be shown.
#include "platform/routing/answer.h"
#include "platform/routing/interface_table.h"
#include "platform/routing/message_json.h"
#include "platform/routing/rtm_server.h"
#include "platform/routing/validate.h"
#include "proto/policy.pb-c.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <iterator>
#include <net/if.h>
#include <set>

namespace
{

void expect(bool is_so, const char *what)
{
    if (is_so)
        return;
    fprintf(stderr, "fuzz_routing: %s\n", what);
    __builtin_trap();
}

void expect_json(const std::string &text)
{
    int depth = 0;
    bool is_in_text = false;
    for (char c : text) {
        expect(static_cast<unsigned char>(c) >= 0x20, "a control character in JSON");
        is_in_text ^= c == '"'; // quotes inside texts are written as numbers
        depth += is_in_text ? 0 : (c == '{' || c == '[') - (c == '}' || c == ']');
        expect(depth >= 0, "JSON that closes too much");
    }
    expect(depth == 0 && !is_in_text, "JSON that is not closed");
}

void expect_answer(const message_row_t &row, const ProtobufCMessage &message)
{
    size_t shows = 0, size = 0;
    frame_t frame;
    answer_t answer = answer_make(plain_backend(), {}, &shows, row, message);
    if (answer.is_close) // it would not fit
        return;
    expect(frame_read(answer.bytes, &frame, &size) == FRAME_WHOLE && size == answer.bytes.size(), "no whole answer");
    expect(frame.module == row.module && frame.type == row.answer_type && !frame.body.empty(), "a wrong answer");
}

void take_frames(std::string_view bytes)
{
    frame_t frame;
    size_t size = 0;
    for (; frame_read(bytes, &frame, &size) == FRAME_WHOLE; bytes.remove_prefix(size)) {
        const message_row_t *row = message_row_find(frame.module, frame.type);
        message_ptr message = row != nullptr ? message_unpack(*row, frame.body) : nullptr;
        if (!message)
            continue;
        expect_json(message_json(*message));
        if (row->kind != MESSAGE_CONTROL)
            expect_answer(*row, *message);
    }
}

using known_t = std::set<std::pair<std::string, kernel_address_t>>; // an interface itself has no address

void follow(const interface_events_t &events, known_t *known)
{
    for (const interface_event_t &event : events) {
        frame_t frame;
        size_t size = 0;
        kernel_address_t address = event.address;
        address.index = event.link.index;
        expect(event.link.name.size() < IFNAMSIZ, "a name that is too long");
        expect(frame_read(interface_event_frame(event), &frame, &size) == FRAME_WHOLE, "no frame of an event");
        if (event.op == INTERFACE_DEL)
            std::erase_if(*known, [&](const auto &one) { return one.second.index == event.link.index; });
        else if (event.op == INTERFACE_ADDRESS_DEL)
            expect(known->erase({ event.link.name, address }) == 1, "an address that nobody knew is gone");
        else if (event.op != INTERFACE_STATE)
            expect(known->insert({ event.link.name, address }).second, "told twice");
    }
}

void take_kernel(std::string_view bytes)
{
    interface_table_t table;
    interface_events_t events;
    known_t known, replayed;
    for (const kernel_change_t &change : netlink_parse(bytes)) {
        if (change.kind == KERNEL_DONE)
            interface_table_sweep_end(&table, &events);
        if (change.kind == KERNEL_ERROR)
            interface_table_sweep_begin(&table);
        interface_table_apply(&table, change, &events);
    }
    follow(events, &known);
    follow(interface_table_replay(table), &replayed);
    expect(known == replayed, "events and replay differ");
}

void take_control(std::string_view bytes)
{
    for (const control_line_t &line : control_parse(bytes))
        expect(line.word < NUM_CONTROL_WORDS && line.type >= CONTROL_ANY_TYPE && line.type <= 255, "a wrong line");
}

void take_expression(std::string_view bytes)
{
    std::string text(bytes.substr(0, bytes.find('\0')));
    MBgpAsPathList list = M_BGP_AS_PATH_LIST__INIT;
    list.regex = text.data();
    backend_result_t result = message_validate(*message_row_find(1, 15), list.base);
    expect((result.code == 0) == result.text.empty(), "a refusal without a text, or a text without a refusal");
    expect(result.text.size() < 2 * AS_PATH_MAX_LENGTH, "a refusal that is too long");
    expect(std::all_of(result.text.begin(), result.text.end(), [](char c) { return c >= ' ' && c <= '~'; }),
           "a refusal that cannot be shown");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static void (*const takers[])(std::string_view) = { take_frames, take_kernel, take_control, take_expression };
    if (size == 0)
        return 0;
    takers[data[0] % std::size(takers)]({ reinterpret_cast<const char *>(data) + 1, size - 1 });
    return 0;
}
