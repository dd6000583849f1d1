#include "agent/server/diff_order.h"

#include <algorithm>

// A touched entry may stay only between untouched ones that it was between before.
static std::vector<size_t> can_stay(std::span<const order_item_t> items)
{
    std::vector<size_t> next_untouched(items.size()); // old place of the nearest untouched entry at or behind
    size_t next = NO_PLACE;
    for (size_t i = items.size(); i > 0; i--) {
        const order_item_t &item = items[i - 1];
        next = item.is_touched || item.old_place == NO_PLACE ? next : item.old_place;
        next_untouched[i - 1] = next;
    }
    std::vector<size_t> candidates;
    bool has_before = false;
    size_t before = 0;
    for (size_t i = 0; i < items.size(); i++) {
        size_t place = items[i].old_place;
        if (place == NO_PLACE)
            continue;
        bool fits = !items[i].is_touched || ((!has_before || place > before) && place < next_untouched[i]);
        if (fits)
            candidates.push_back(i);
        if (!items[i].is_touched) {
            has_before = true;
            before = place;
        }
    }
    return candidates;
}

// Marks a longest ascending row of old places as staying.
static void keep_longest(std::span<const order_item_t> items, const std::vector<size_t> &candidates,
                         std::vector<bool> &stays)
{
    std::vector<size_t> ends;                           // of the best row of each length: position in items
    std::vector<size_t> before(items.size(), NO_PLACE); // the one before in its row
    for (size_t i : candidates) {
        auto at =
            std::ranges::partition_point(ends, [&](size_t end) { return items[end].old_place < items[i].old_place; });
        before[i] = at == ends.begin() ? NO_PLACE : *(at - 1);
        if (at == ends.end())
            ends.push_back(i);
        else
            *at = i;
    }
    for (size_t i = ends.empty() ? NO_PLACE : ends.back(); i != NO_PLACE; i = before[i])
        stays[i] = true;
}

void diff_find_moves(std::span<order_item_t> items)
{
    std::vector<bool> stays(items.size());
    keep_longest(items, can_stay(items), stays);
    bool is_end = true; // nothing but new entries behind
    for (size_t i = items.size(); i > 0; i--) {
        bool is_new = items[i - 1].old_place == NO_PLACE;
        is_end = is_end && is_new;
        items[i - 1].is_placed = is_new ? !is_end : !stays[i - 1];
    }
}
