// What the daemon says when it is asked whether it would take a setting: a request with nothing in it to judge is agreed
// to. A refusal's text is for the operator's eyes as it is: it names the value and has no control characters.
#ifndef PLATFORM_ROUTING_VALIDATE_H
#define PLATFORM_ROUTING_VALIDATE_H

#include "platform/routing/backend.h"

#include <string_view>

inline constexpr uint32_t VALIDATE_REFUSED = 1; // code of all refusals
// Longest as-path expression.
inline constexpr size_t AS_PATH_MAX_LENGTH = 127;
// CPU time that compiling one may take. The C library writes repetitions out and follows every way through borders that
// repeat: short texts could take hours, and all memory. Sound ones take far less than a millisecond.
inline constexpr long AS_PATH_MAX_MS = 200;

[[nodiscard]] backend_result_t message_validate(const message_row_t &row, const ProtobufCMessage &message);

// The expression as regcomp(3) takes it: "_", a border of a number, written out, but for one between brackets.
[[nodiscard]] std::string as_path_expression(std::string_view text);
// Empty for an expression that compiles, otherwise why it does not. Compiles it in a process of its own, which it waits
// for.
[[nodiscard]] std::string as_path_fault(std::string_view text);

#endif
