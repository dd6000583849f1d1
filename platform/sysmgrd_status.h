// The state of the device's processes for people and scripts: the JSON file "/var/run/sysmgrd.status".
#ifndef PLATFORM_SYSMGRD_STATUS_H
#define PLATFORM_SYSMGRD_STATUS_H

#include "platform/sysmgrd.h"

// One object. Members whose value is not known are null. Times in ms; "last-hello-age-ms" is as of "written-at", seconds
// since the epoch, and the times of "agent" count from the start of the system manager.
[[nodiscard]] std::string status_json(const sysmgrd_t &sysmgrd, int64_t now_ms, int64_t written_at_s);

void status_write(const sysmgrd_t &sysmgrd);

#endif
