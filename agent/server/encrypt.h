// Encrypted leaves: those with the statement `encrypted`. Every way of setting them stores the text of
// agent/wire/crypto.h in the place of a clear one; the leaf's type has to take both.
#ifndef AGENT_SERVER_ENCRYPT_H
#define AGENT_SERVER_ENCRYPT_H

#include "agent/server/datastore.h"

// Replaces the value that a leaf is to be set to by what is stored. A clear text that the leaf has already, in the
// transaction or in running, keeps the stored text. A text with the mark that was not made with the agent's keys is
// CONFD_ERR_BADTYPE. Other leaves, and a datastore without keys, are left alone.
[[nodiscard]] bool encrypt_value(trans_t &trans, const path_t &path, value_t &value, ds_error_t &error);

#endif
