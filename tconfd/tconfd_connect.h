// The steps that a primary and a secondary context share: library, daemon context, control and worker sockets, their
// events, actions. Each step logs its own failure and gives false.
#ifndef TCONFD_TCONFD_CONNECT_H
#define TCONFD_TCONFD_CONNECT_H

#include "tconfd/tconfd_api.h"

void tconfd_library_init(const char *client_name);
// A zeroed context with a copy of the record and all descriptors closed; null, logged, without memory.
[[nodiscard]] tconfd_ctx *tconfd_ctx_alloc(const tconfd_registration &reg);

[[nodiscard]] bool tconfd_daemon_ctx_create(tconfd_ctx *ctx, const char *name);
void tconfd_daemon_ctx_release(tconfd_ctx *ctx);

[[nodiscard]] bool tconfd_socket_open(const tconfd_ctx *ctx, int32_t *fd, const char *word);
// Connects control and worker. The control socket fails silently: an agent that is not up yet is the normal case.
[[nodiscard]] bool tconfd_daemon_sockets_connect(tconfd_ctx *ctx);
// Closes control and worker and frees their events.
void tconfd_daemon_sockets_close(tconfd_ctx *ctx);
[[nodiscard]] bool tconfd_daemon_events_add(tconfd_ctx *ctx);

[[nodiscard]] bool tconfd_trans_cb_register(tconfd_ctx *ctx);
[[nodiscard]] bool tconfd_actions_register(tconfd_ctx *ctx, confd_action_cbs *rows);
[[nodiscard]] bool tconfd_register_done(tconfd_ctx *ctx);

// A descriptor counts as open when it is above 0; a closed one is -1.
void tconfd_fd_close(int32_t *fd);
void tconfd_event_free(event **ev);

// Tears a secondary context down and frees it.
void tconfd_secondary_free(tconfd_ctx *secondary);

#endif
