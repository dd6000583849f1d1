// Requests on a session, for the operations of the session's sources.
#ifndef AGENT_CLI_SESSION_CALL_H
#define AGENT_CLI_SESSION_CALL_H

#include "agent/cli/session.h"

// Sends the request and waits for its reply; reply gets the payload. Pushes that arrive first go to the sinks.
[[nodiscard]] bool session_call(session_t &session, uint16_t op, const wire_writer_t &request, std::string &reply,
                                cli_error_t &error);
// A request that is one number, whose reply says nothing.
[[nodiscard]] bool session_call_number(session_t &session, uint16_t op, uint32_t number, cli_error_t &error);
[[nodiscard]] bool session_start_trans(session_t &session, bool is_writable, uint32_t &trans, cli_error_t &error);

#endif
