// The texts of encrypted leaves: "$8$", then base64 (RFC 4648, section 4) of 16 random bytes and of what AES-128 in CFB
// mode makes with them of the first 4 bytes of the clear text's SHA-256 and the clear text itself. Agent and client
// library share this form.
//
// The key is the first 16 bytes of the agent's keys (WIRE_MAAPI_INSTALL_CRYPTO_KEYS). Those 4 bytes tell other keys,
// and a text that has been tampered with by hand; they are no signature.
#ifndef AGENT_WIRE_CRYPTO_H
#define AGENT_WIRE_CRYPTO_H

#include <string>
#include <string_view>

inline constexpr std::string_view WIRE_CRYPTO_MARK = "$8$";
inline constexpr size_t WIRE_CRYPTO_MAX = 1u << 20; // bytes of a text; longer ones are neither made nor read

// False, with the output as it was, when the keys are too short, the text is too long or no random bytes can be had.
// The same clear text gives another text each time.
[[nodiscard]] bool wire_encrypt(std::string_view keys, std::string_view clear, std::string &text);

// False, with the output as it was, when the text has not the form above or was made with other keys.
[[nodiscard]] bool wire_decrypt(std::string_view keys, std::string_view text, std::string &clear);

#endif
