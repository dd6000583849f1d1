// Walks through data. See session.h; the frames are in agent/wire/wire.h.
#include "agent/cli/session_call.h"

namespace
{

constexpr uint32_t PAGE_ITEMS = 500;

std::vector<std::string> read_texts(wire_reader_t &in, uint32_t count)
{
    std::vector<std::string> texts;
    for (; count > 0 && in.ok; count--)
        texts.emplace_back(in.text());
    return texts;
}

item_t read_item(wire_reader_t &in)
{
    item_t item;
    uint8_t kind = in.u8();
    if (kind < WIRE_WALK_CONTAINER || kind > WIRE_WALK_NOTE)
        in.ok = false;
    item.kind = static_cast<wire_walk_item_t>(kind);
    if (!in.ok || kind == WIRE_WALK_END)
        return item;
    item.name = in.text();
    if (kind == WIRE_WALK_ENTRY)
        item.values = read_texts(in, in.u8());
    else if (kind == WIRE_WALK_LEAF)
        item.values = read_texts(in, 1);
    else if (kind == WIRE_WALK_LEAF_LIST)
        item.values = read_texts(in, in.count(sizeof(uint32_t)));
    return item;
}

} // namespace

session_walk_t::~session_walk_t()
{
    cli_error_t error;
    if (is_open_)
        (void)session_call_number(session_, WIRE_MAAPI_WALK_STOP, walk_, error); // it ends with the session anyway
    if (trans_ != 0)
        (void)session_call_number(session_, WIRE_MAAPI_FINISH_TRANS, trans_, error);
}

bool session_walk_t::start(show_source_t source, const std::string &path, cli_error_t &error)
{
    uint32_t trans = 0;
    if (source == show_source_t::TRANSACTION)
        trans = session_.trans;
    if (source == show_source_t::RUNNING) {
        if (!session_start_trans(session_, false, trans_, error))
            return false;
        trans = trans_;
    }
    wire_writer_t request;
    request.u32(trans);
    request.text(path.empty() ? "/" : path);
    request.u32(0);
    std::string reply;
    if (!session_call(session_, WIRE_MAAPI_WALK, request, reply, error))
        return false;
    wire_reader_t in(reply);
    walk_ = in.u32();
    is_open_ = in.finished();
    return is_open_ || cli_fail(error, "the agent's walk cannot be read");
}

bool session_walk_t::next(std::vector<item_t> &items, cli_error_t &error)
{
    items.clear();
    while (is_open_ && items.empty()) {
        wire_writer_t request;
        request.u32(walk_);
        request.u32(PAGE_ITEMS);
        std::string reply;
        if (!session_call(session_, WIRE_MAAPI_WALK_NEXT, request, reply, error))
            return false;
        wire_reader_t in(reply);
        is_open_ = in.u8() == 0;
        for (uint32_t n = in.count(1); n > 0 && in.ok; n--)
            items.push_back(read_item(in));
        if (!in.finished())
            return cli_fail(error, "the agent's data cannot be read");
    }
    return true;
}
