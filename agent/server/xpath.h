// The model's expressions (must, when) in words that libyang evaluates rightly.
//
// libyang 2 loses the type of an empty node set when it skips a predicate that has "and" or "or" in it: where there is
// no x, "count(x[a and b])" fails and "x[a or b] != 'v'" is true. So such predicates are put in other words before
// libyang compiles the model, and every evaluation, its own and the agent's, is of those.
#ifndef AGENT_SERVER_XPATH_H
#define AGENT_SERVER_XPATH_H

#include <libyang/libyang.h>
#include <string>
#include <string_view>

// The same expression without "and" and "or" in predicates: products and sums of booleans in their places.
[[nodiscard]] std::string xpath_plain_predicates(std::string_view text);

// Rewrites the expressions of all modules that are parsed and not compiled yet; those of actions and deviations stay.
void xpath_rewrite_modules(ly_ctx *ctx);

#endif
