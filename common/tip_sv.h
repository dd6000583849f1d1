// Directories of supervised services: a supervisor watches them, runs what stands in "run" and takes commands through a
// pipe.
#ifndef COMMON_TIP_SV_H
#define COMMON_TIP_SV_H

inline constexpr int SV_NO_RUN_TEXT = -22;

enum sv_command_t : char {
    SV_UP = 'u',
    SV_DOWN = 'd',
    SV_TERM = 't',
    SV_HUP = 'h',
};

// Makes the directory (which may exist) and writes its run script, and its finish script unless finish is null. 0;
// SV_NO_RUN_TEXT when run is null; otherwise the negative result of what failed, as file_write_all has it, with errno.
[[nodiscard]] int sv_dir_create(const char *directory, const char *run, const char *finish);

// Hands one SV_* command to the directory's supervisor. 1 when it is delivered, -5 when the supervisor's pipe did not
// take it, or the negative result of open(2) with errno (ENXIO: no supervisor is listening). Never blocks.
[[nodiscard]] int sv_control(const char *directory, char command);

#endif
