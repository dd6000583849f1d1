// Small text and number operations that everything uses.
#ifndef COMMON_TIP_TEXT_H
#define COMMON_TIP_TEXT_H

#include <cstddef>
#include <cstdint>
#include <cstring>

// The string copy of the system: always terminates within size (unless that is 0) and gives the length of source, so
// that a result of size or more means that text was cut. C libraries from glibc 2.38 on have it themselves.
#if defined(__GLIBC__) && !__GLIBC_PREREQ(2, 38)
extern "C" size_t strlcpy(char *to, const char *source, size_t size) noexcept;
#endif

inline constexpr size_t MAC_BYTES = 6;
inline constexpr size_t MAC_TEXT_SIZE = 128; // of the buffer of mac_to_text
inline constexpr size_t HEX_DUMP_SIZE = 1500;

// Reads six hexadecimal numbers joined by ':' and stores the low byte of each; gives mac, or null (mac untouched) when
// there are fewer. Text behind the sixth is not looked at.
uint8_t *mac_from_str(const char *text, uint8_t *mac);
// Writes "aa:bb:cc:dd:ee:ff" and gives buffer; the second form is for a buffer of MAC_TEXT_SIZE.
char *mac_to_str(const uint8_t *mac, char *buffer, size_t size);
char *mac_to_text(const uint8_t *mac, char *buffer);

const char *bool_str(bool value); // "True" or "False"
// "TCP", "UDP" or the number in decimal; gives buffer.
char *proto_str(unsigned number, char *buffer, size_t size);
// Raises a-z in place, whatever the locale.
void str_upper(char *text);
// Copies the first word of at most in_len bytes of in to out, which is zeroed first. A word that does not fit is cut.
// No effect when any argument is null or 0.
void str_first_word(const char *in, size_t in_len, char *out, size_t out_size);

// Logs a dump of bytes as one line of syslog.
void hex_dump(const void *bytes, size_t length);
// Writes lines of 16 bytes: offset, hexadecimal, printable form. What does not fit is left out by whole lines; gives the
// length written.
size_t hex_dump_to_buffer(const void *bytes, size_t length, char *buffer, size_t size);

// value if it is 0 or a power of two, else the largest power of two below it.
uint64_t round_down_pow2(uint64_t value);
// By how many per cent now exceeds before, rounded down; 0 unless 0 < before < now.
uint64_t percent_increase(uint32_t before, uint32_t now);

#endif
