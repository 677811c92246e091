#include "path_text.h"

#include <gtest/gtest.h>

#include <string>

namespace dedup {
namespace {

TEST(PathTextTest, EveryNameComesBackExactlyAndUtf8StandsAsItIs) {
    // Valid UTF-8, however far from ASCII, is written as it is.
    for (std::string name : {"/Fotos/été 2024.jpg", "/日本/写真.png", "/emoji/\xf0\x9f\x93\xb7.jpg", ""}) {
        EXPECT_EQ(pathText(name), name);
        EXPECT_EQ(pathFromText(pathText(name)), name);
    }
    // Every single byte, alone and between letters.
    for (int b = 1; b < 256; ++b) {
        std::string name = "/a" + std::string(1, static_cast<char>(b)) + "b";
        EXPECT_EQ(pathFromText(pathText(name)), name) << b;
    }
    // Sequences a lenient reader would take for characters: overlong, surrogate, beyond U+10FFFF,
    // cut short; and text that already looks like the escapes.
    for (std::string name : {"/\xc0\xaf", "/\xed\xa0\x80", "/\xf4\x90\x80\x80", "/\xe2\x82", "/\\x41", "/\\\\x41\\"}) {
        std::string text = pathText(name);
        EXPECT_EQ(pathFromText(text), name) << text;
        EXPECT_EQ(text.find_first_of("\xc0\xed\xf4\xe2"), std::string::npos) << text;
    }
    EXPECT_EQ(pathText("/caf\xe9\\x"), "/caf\\xe9\\\\x");
    // The quick test agrees with the text made, for every name above and every byte.
    for (std::string name : {"/Fotos/été 2024.jpg", "/emoji/\xf0\x9f\x93\xb7.jpg", "", "/\xc0\xaf", "/\xed\xa0\x80",
                             "/\xf4\x90\x80\x80", "/\xe2\x82", "/\\x41", "/caf\xe9"}) {
        EXPECT_EQ(isOwnText(name), pathText(name) == name) << name;
    }
    for (int b = 1; b < 256; ++b) {
        std::string name = "/\xc3\xa9" + std::string(1, static_cast<char>(b));
        EXPECT_EQ(isOwnText(name), pathText(name) == name) << b;
    }
    // Text written before the form existed, with a lone backslash, reads as it did.
    EXPECT_EQ(pathFromText("C:\\dir\\x"), "C:\\dir\\x");
}

}  // namespace
}  // namespace dedup
