// Which entries of a user-ordered list a diff tells as moved.
#ifndef AGENT_SERVER_DIFF_ORDER_H
#define AGENT_SERVER_DIFF_ORDER_H

#include <cstddef>
#include <span>
#include <vector>

inline constexpr size_t NO_PLACE = static_cast<size_t>(-1);

struct order_item_t {
    size_t old_place = NO_PLACE; // NO_PLACE: the entry is new
    bool is_touched = false;     // an edit may have moved it; those not touched keep their order among each other
    bool is_placed = false;      // result: it has to be put behind the entry before it
};

// Items are in the new order. With the entries that are not placed as they are, and new ones behind them in their
// order, putting the placed ones one by one behind the entry before gives the new order. As few as possible are placed.
void diff_find_moves(std::span<order_item_t> items);

#endif
