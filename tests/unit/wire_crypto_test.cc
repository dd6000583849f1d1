// The texts of encrypted leaves.
#include "agent/wire/crypto.h"

#include <gtest/gtest.h>

namespace
{
const std::string KEYS = "0123456789abcdef0123456789abcdef";

TEST(wire_crypto, what_is_encrypted_decrypts_to_the_same_and_is_another_text_each_time)
{
    for (const std::string &clear : { std::string(), std::string("x"), std::string("secret \"p\xc3\xa4ss\""),
                                      std::string(5000, 'y'), std::string("with\0NUL", 8) }) {
        std::string first, second, back;
        ASSERT_TRUE(wire_encrypt(KEYS, clear, first));
        ASSERT_TRUE(wire_encrypt(KEYS, clear, second));
        EXPECT_NE(first, second);
        EXPECT_TRUE(first.starts_with("$8$"));
        EXPECT_TRUE(clear.size() < 2 || first.find(clear) == std::string::npos);
        ASSERT_TRUE(wire_decrypt(KEYS, first, back));
        EXPECT_EQ(back, clear);
    }
}

// Made once with the openssl command and sha256sum: the form must not change, as it is on disks.
TEST(wire_crypto, the_form_is_that_of_texts_on_disk)
{
    std::string clear;
    ASSERT_TRUE(wire_decrypt(KEYS, "$8$AAECAwQFBgcICQoLDA0OD9Swz/SQ0MtinOc=", clear));
    EXPECT_EQ(clear, "router");
}

TEST(wire_crypto, other_keys_and_damaged_texts_are_told)
{
    std::string text, out = "kept";
    ASSERT_TRUE(wire_encrypt(KEYS, "a secret", text));
    std::string other = "f" + KEYS;
    EXPECT_FALSE(wire_decrypt(other, text, out));
    EXPECT_FALSE(wire_decrypt("short", text, out));
    EXPECT_FALSE(wire_encrypt("short", "a secret", out));
    EXPECT_FALSE(wire_encrypt(KEYS, std::string(WIRE_CRYPTO_MAX, 'x'), out));
    for (size_t i = 0; i < text.size(); i++) {
        std::string damaged = text;
        damaged[i] = damaged[i] == 'A' ? 'B' : 'A';
        EXPECT_FALSE(wire_decrypt(KEYS, damaged, out)) << i;
        EXPECT_FALSE(wire_decrypt(KEYS, text.substr(0, i), out)) << i;
    }
    for (const char *bad : { "", "$8$", "$8$=", "$8$====", "$8$ AAAA", "$8$AAAA\n", "$8$AA=A" })
        EXPECT_FALSE(wire_decrypt(KEYS, bad, out)) << bad;
    EXPECT_EQ(out, "kept");
}
} // namespace
