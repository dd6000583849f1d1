// Values of configuration, read into the daemon's own types. A type that the model does not allow is a bug and ends the
// process. Texts and addresses are copied: nothing of the value is kept.
#ifndef CFGMGR_NETWORK_CFGMGR_CONFIG_VALUE_H
#define CFGMGR_NETWORK_CFGMGR_CONFIG_VALUE_H

#include "common/ip_util.h"
#include "tconfd/tconfd_api.h"

#include <confd_lib.h>
#include <cstddef>
#include <cstdint>
#include <type_traits>

// A handler of changes, as functions are declared with it.
using cfgmgr_config_handler_t = std::remove_pointer_t<tconfd_handler_t>;

// A leaf, or a presence container, that was deleted.
[[nodiscard]] bool cfgmgr_config_is_deleted(const confd_value_t &value);
// Integers of any width and the numbers of enumerations.
[[nodiscard]] int64_t cfgmgr_config_number(const confd_value_t &value);
[[nodiscard]] bool cfgmgr_config_bool(const confd_value_t &value);
// Cut to size - 1 bytes: the models keep texts within the records' widths.
void cfgmgr_config_text(const confd_value_t &value, char *out, size_t size);
// As the agent's address types or as text; a text that is no address gives the zero address.
[[nodiscard]] ip_addr_t cfgmgr_config_address(const confd_value_t &value);
// As the agent's prefix types or as text; without a length that of a host.
[[nodiscard]] ip_prefix_t cfgmgr_config_prefix(const confd_value_t &value);

#endif
