// Everything of the small utilities, by concern.
#ifndef COMMON_TIP_UTIL_H
#define COMMON_TIP_UTIL_H

#include "common/ip_util.h"
#include "common/tip_board.h"
#include "common/tip_eeprom.h"
#include "common/tip_file.h"
#include "common/tip_i2c.h"
#include "common/tip_if_name.h"
#include "common/tip_ifaddr.h"
#include "common/tip_limits.h"
#include "common/tip_names.h"
#include "common/tip_netns.h"
#include "common/tip_pid.h"
#include "common/tip_sv.h"
#include "common/tip_system.h"
#include "common/tip_text.h"
#include "common/tip_time.h"

#endif
