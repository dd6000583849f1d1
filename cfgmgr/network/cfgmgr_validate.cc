// The table of the validation points.

#include "cfgmgr/network/cfgmgr_validate.h"

#include "common/tip_text.h"

#include <iterator>

namespace
{

struct point_row_t {
    const char *point;
    cfgmgr_validator_t *validate;
};

// A point that a model names stands here: the agent refuses a change that a point concerns and nobody serves.
constexpr point_row_t points[] = {
    { "", nullptr },
};

// As the datastore client takes them.
confd_valpoint_cb rows[std::size(points) + 1];

} // namespace

confd_valpoint_cb *cfgmgr_validate_points()
{
    for (size_t i = 0; i < std::size(points); i++) {
        rows[i] = {};
        strlcpy(rows[i].valpoint, points[i].point, sizeof rows[i].valpoint);
        rows[i].validate = points[i].validate;
    }
    return rows;
}
