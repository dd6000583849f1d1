// What NETCONF wraps around a configuration: a "config" or "data" element, which the data model does not have.
#ifndef AGENT_SERVER_XML_ENVELOPE_H
#define AGENT_SERVER_XML_ENVELOPE_H

#include "agent/server/ds_error.h"

#include <string>
#include <string_view>

inline constexpr std::string_view NETCONF_NAMESPACE = "urn:ietf:params:xml:ns:netconf:base:1.0";

// The document without its envelope, if it has one: namespaces that the envelope declares are declared in its children
// instead, lines keep their numbers. What is not well formed is left as it is, for the parser to name. Elements nested
// deeper than any model refuse the document.
[[nodiscard]] bool xml_take_content(std::string_view document, std::string &content, ds_error_t &error);

#endif
