// The rules of the model, checked for what a transaction has touched and for what looks at it (RFC 7950, section 8).
//
// Cost by the size of the edits, of what was created and deleted, and of the instances of rules that look at it. A rule
// that looks across a list (unique, a must with an absolute path into its own list) costs by the list.
#ifndef AGENT_SERVER_VALIDATE_H
#define AGENT_SERVER_VALIDATE_H

#include "agent/server/edit_log.h"

// Judges the log's changes. First nodes whose when no longer holds go and defaults whose when now holds come, as
// further changes in the log; a node that the transaction itself has made against its when is refused. The error is
// CONFD_ERR_NOTSET for what is missing, CONFD_ERR_VALIDATION for any other rule, with path and rule.
[[nodiscard]] bool validate_edits(edit_log_t &log, ds_error_t &error);

#endif
