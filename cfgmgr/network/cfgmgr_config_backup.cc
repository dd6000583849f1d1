// The timer of the archive, and the command of a copy.

#include "cfgmgr/network/cfgmgr_config_backup.h"

#include "common/tip_assert.h"
#include "common/tip_log.h"
#include "common/tip_system.h"
#include "common/tip_text.h"

#include <cstdarg>
#include <cstdio>
#include <ctime>
#include <pthread.h>

namespace
{

// One command, of these parts. What stands for %s is limited by the model to characters without a meaning for a shell.
constexpr char SAVE[] = "/usr/bin/tconfd_script_backup.sh -operation save -user admin path %s ";
constexpr char THROUGH_VPN[] = " external-vpn %lu";
constexpr char WITH_KEY[] = " -ssh-id-file %s";
constexpr size_t COMMAND_SIZE = 1024; // two texts of ARCHIVE_TEXT_SIZE and all words

constexpr char NAME_TIME[] = "_%Y-%m-%d_%H-%M-%S"; // behind the name of a copy
constexpr char LAST_TIME[] = "%a %b %d %T %Z %Y";
constexpr size_t TIME_SIZE = 64;

struct save_command_t {
    char text[COMMAND_SIZE];
    size_t length;
};

[[gnu::format(printf, 2, 3)]] void append(save_command_t *command, const char *pattern, ...)
{
    size_t room = sizeof command->text - command->length;
    va_list values;
    va_start(values, pattern);
    int added = vsnprintf(command->text + command->length, room, pattern, values);
    va_end(values);
    tip_assert(added >= 0 && static_cast<size_t>(added) < room);
    command->length += static_cast<size_t>(added);
}

save_command_t save_command(const backup_state_t &backup, const char *name_time)
{
    char file[ARCHIVE_TEXT_SIZE + TIME_SIZE];
    (void)snprintf(file, sizeof file, "%s%s", backup.archive_path, name_time);
    save_command_t command{};
    append(&command, SAVE, file);
    if (uint64_t vpn_id = backup.archive_vpn; vpn_id != ARCHIVE_VPN_NONE)
        append(&command, THROUGH_VPN, vpn_id);
    bool has_key = backup.archive_ssh_id_file[0] != '\0';
    append(&command, WITH_KEY, has_key ? backup.archive_ssh_id_file : ARCHIVE_SSH_ID_FILE_DEFAULT);
    return command;
}

} // namespace

void cfgmgr_config_backup_reset(backup_state_t *backup)
{
    backup->archive_path[0] = '\0';
    strlcpy(backup->archive_ssh_id_file, ARCHIVE_SSH_ID_FILE_DEFAULT, sizeof backup->archive_ssh_id_file);
    backup->archive_interval_ms = ARCHIVE_INTERVAL_DEFAULT_MS;
    backup->archive_vpn = ARCHIVE_VPN_NONE;
}

void cfgmgr_config_backup(bool enable, cfgmgrd_t *cfgmgrd_p)
{
    if (cfgmgrd_p == nullptr) {
        tip_log("Cfgmgr daemon is uninitialized don't do anything");
        return;
    }
    backup_state_t &backup = cfgmgrd_p->backup;
    if (enable) {
        tip_log("Enabling periodic archive of configuration");
        cfgmgr_config_backup_cb(cfgmgrd_p->backup_timer_p, cfgmgrd_p, nullptr, nullptr, nullptr);
        timer_restart(cfgmgrd_p->backup_timer_p, backup.archive_interval_ms);
    } else {
        tip_log("Disabling periodic archive of configuration");
        timer_disable(cfgmgrd_p->backup_timer_p);
        strlcpy(backup.archive_last_time, ARCHIVE_DISABLED, sizeof backup.archive_last_time);
    }
}

void cfgmgr_config_backup_cb(timer_util_t *, void *arg1, void *, void *, void *)
{
    pthread_t thread;
    int error = pthread_create(&thread, nullptr, cfgmgr_config_backup_thread, arg1);
    if (error != 0) {
        tip_log("Failed to spawn a thread with error number %d", error);
        return;
    }
    pthread_detach(thread);
}

void *cfgmgr_config_backup_thread(void *arg)
{
    backup_state_t &backup = static_cast<cfgmgrd_t *>(arg)->backup;
    if (backup.archive_path[0] == '\0')
        return nullptr; // the archive was deleted before this thread ran
    time_t now = time(nullptr);
    tm local;
    localtime_r(&now, &local);
    char name_time[TIME_SIZE];
    (void)strftime(name_time, sizeof name_time, NAME_TIME, &local);
    if (!tip_system_ok(tip_system(save_command(backup, name_time).text))) {
        tip_log("Failed to do a periodic archive of config");
        return nullptr;
    }
    (void)strftime(backup.archive_last_time, sizeof backup.archive_last_time, LAST_TIME, &local);
    return nullptr;
}
