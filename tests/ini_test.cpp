#include "ini.h"

#include <gtest/gtest.h>

#include <string>

#include "test_util.h"

namespace {

// Loads `text` from a file, keeping what the parser wrote to standard error.
struct loaded {
    zor_test::temp_dir dir;
    std::string path = dir.file("test.ini"), err;
    ini_ptr ini;
    explicit loaded(const std::string& text) {
        zor_test::write_file(path, text);
        testing::internal::CaptureStderr();
        ini.reset(ini_load(path.c_str()));
        err = testing::internal::GetCapturedStderr();
    }
    std::string get(const char* section, const char* key) const {
        return ini_get_string(ini.get(), section, key, "<default>");
    }
};

// Values are taken literally (quotes, inner '=' and '#' kept), case matters,
// a trailing backslash joins the next line, an empty header names the unnamed
// section, and a repeated section starts a fresh key list in its first place.
TEST(Ini, KeysValuesAndSectionsAreReadLiterally) {
    loaded f("top = 0\n  # indented comment\n#comment = ignored\n\n[ zor ]\nAuth_Id = abc\nplain=v\n"
             "spaced   =   a = b   \nquoted = \"q\" # kept\nxdb =\ncrlf = yes\r\n"
             "a = abc\\\ndef\nb = one \\\n  two\\\nthree\n[other]\nc = 3\n[zor]\nlate = 9\n[]\nnamed = no\n"
             "d = pending\\\n");
    ASSERT_TRUE(f.ini) << f.err;
    struct { const char* section; const char* key; const char* value; } cases[] = {
        {"zor", "Auth_Id", "<default>"}, {"zor", "late", "9"}, {"other", "c", "3"},
        {nullptr, "named", "no"}, {nullptr, "#comment", "<default>"}, {nullptr, "d", "<default>"},
    };
    for (const auto& c : cases) EXPECT_EQ(f.get(c.section, c.key), c.value) << c.key;
    loaded once("[zor]\nAuth_Id = abc\nplain=v\nspaced   =   a = b   \nquoted = \"q\" # kept\nxdb =\n"
                "crlf = yes\r\na = abc\\\ndef\nb = one \\\n  two\\\nthree\n");
    struct { const char* key; const char* value; } zor[] = {
        {"Auth_Id", "abc"}, {"auth_id", "<default>"}, {"plain", "v"}, {"spaced", "a = b"},
        {"quoted", "\"q\" # kept"}, {"xdb", ""}, {"crlf", "yes"}, {"a", "abcdef"}, {"b", "one   twothree"}};
    for (const auto& c : zor) EXPECT_EQ(once.get("zor", c.key), c.value) << c.key;
    EXPECT_EQ(once.get("ZOR", "plain"), "<default>");
}

// Lines are read in pieces of at most 1023 characters: the rest of a longer
// line (joined or not) is a line of its own.
TEST(Ini, SyntaxErrorsNameTheLineAndLongLinesArriveInPieces) {
    const std::string head = "k = " + std::string(595, 'a') + "\\\n";
    struct { std::string text; int line; std::string echoed_or_value; } cases[] = {
        {"[zor]\na = 1\nkey\n", 3, "key"},
        {"   indented without equals  \n", 1, "   indented without equals"},
        {"a = 1\\\n2\nbad\n", 3, "bad"},
        {"k = " + std::string(1500, 'v') + "\n", 2, std::string(1500 - 1019, 'v')},
        {head + std::string(600, 'b') + "\n", 3, std::string(600 - 424, 'b')},
        {"k = " + std::string(1019, 'v') + "\n", 0, std::string(1019, 'v')},
        {head + std::string(424, 'b') + "\n", 0, std::string(595, 'a') + std::string(424, 'b')},
    };
    for (const auto& c : cases) {
        loaded f(c.text);
        const std::string n = std::to_string(c.line);
        if (c.line == 0) {
            EXPECT_EQ(f.get(nullptr, "k"), c.echoed_or_value);
            continue;
        }
        EXPECT_EQ(f.ini, nullptr) << c.text;
        EXPECT_EQ(f.err, "iniparser: syntax error in " + f.path + " (" + n + "):\n-> " + c.echoed_or_value +
                             "\niniparser: failure at line " + n + "\n");
    }
}

}  // namespace
