// What a test can have the daemon do: lines of the file "/var/run/quagga/NAME.control[.VPN]", read before each answer.
//
//   refuse CODE [TEXT]      configuration, validation, clear and debug messages are answered with that code and text
//   invalid CODE [TEXT]     validation messages alone are answered with that; it goes before what the daemon finds, and
//                           before "refuse"
//   show-reply FILE|HEX     body of a show answer, packed; several lines answer as many requests in turn, counted from
//                           the last change of the file; behind the last one, and without any, nothing is found
//   stall SECONDS|forever   the answer comes that much later (SECONDS may have three decimals)
//   die                     the process ends with status 1, and leaves its files
//   close                   the connection is closed instead of an answer
//   wrong-size [N]          the length in the answer's header is N (5: less than the header)
//   wrong-module [N]        the module there is N (9: nobody's)
//   wrong-type [N]          the type there is N (200: nobody's)
//   late MS                 sockets open that long after the pid file is there; read at the start only
//   notify HEX              body of a notification, packed; all of these are sent when the process gets SIGUSR1
//
// "for TYPE" before a line limits it to messages of that type number. Blank lines and lines with '#' in front say
// nothing; a line that is not understood is logged and left out.
#ifndef PLATFORM_ROUTING_CONTROL_WORDS_H
#define PLATFORM_ROUTING_CONTROL_WORDS_H

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

enum control_word_t : uint8_t {
    CONTROL_REFUSE,
    CONTROL_INVALID,
    CONTROL_SHOW_REPLY,
    CONTROL_STALL,
    CONTROL_DIE,
    CONTROL_CLOSE,
    CONTROL_WRONG_SIZE,
    CONTROL_WRONG_MODULE,
    CONTROL_WRONG_TYPE,
    CONTROL_LATE,
    CONTROL_NOTIFY,
    NUM_CONTROL_WORDS
};

inline constexpr uint32_t CONTROL_FOREVER = UINT32_MAX;
inline constexpr int CONTROL_ANY_TYPE = -1;

struct control_line_t {
    control_word_t word;
    int type = CONTROL_ANY_TYPE;
    uint32_t number = 0; // code, milliseconds, or the wrong value
    std::string text;    // of a refusal; bytes or, with is_file, path of a body
    bool is_file = false;
};

// The lines that are understood, in order.
[[nodiscard]] std::vector<control_line_t> control_parse(std::string_view text);
// The first line with the word for messages of a type, null without one.
[[nodiscard]] const control_line_t *control_find(const std::vector<control_line_t> &lines, control_word_t word,
                                                 uint8_t type);
// Bytes of pairs of hexadecimal digits; false when text is anything else, or empty.
[[nodiscard]] bool hex_to_bytes(std::string_view text, std::string *bytes);

#endif
