#include "ini.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
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

template <class Fn>
std::string written_by(Fn fn) {
    char* buf = nullptr;
    size_t len = 0;
    FILE* f = open_memstream(&buf, &len);
    fn(f);
    fclose(f);
    std::string s(buf, len);
    free(buf);
    return s;
}

std::string key_line(const char* key, const char* value) {
    char line[128];
    snprintf(line, sizeof line, "%-30s = %s\n", key, value);
    return line;
}

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
    EXPECT_EQ(written_by([&](FILE* out) { ini_print_sections(f.ini.get(), out, nullptr, nullptr); }), "other\nzor\n");
}

// Lines are read in pieces of at most 1023 characters: the rest of a longer
// line (joined or not) is a line of its own.
TEST(Ini, SyntaxErrorsNameTheLineAndLongLinesArriveInPieces) {
    const std::string head = "k = " + std::string(595, 'a') + "\\\n";
    struct { std::string text; int line; std::string echoed_or_value; } cases[] = {
        {"[zor]\na = 1\nkey\n", 3, "key"},
        {"   indented without equals  \n", 1, "   indented without equals"},
        {"; semicolon is not a comment\n", 1, "; semicolon is not a comment"},
        {"= value\n", 1, "= value"},
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

TEST(Ini, TypedLookupsReadTheirOwnWay) {
    loaded f("dec = 16\nhex = 0x10\noct = 010\nneg = -5\ntext = abc\nmixed = 12abc\n"
             "a = yes\nb = Y\nc = true\nd = 1\ne = t\nf = no\ng = N\nh = FALSE\ni = 0\nj = f\nk = maybe\nl =\nm = 2\n"
             "[zor]\nid = z\nn = 0x1f\non = yes\n[s]\na:b = colon\n");
    const ini_t* ini = f.ini.get();
    ASSERT_TRUE(ini);
    for (auto [key, value] : {std::pair<const char*, long>{"dec", 16}, {"hex", 16}, {"oct", 8}, {"neg", -5},
                              {"text", 0}, {"mixed", 12}, {"missing", 42}})
        EXPECT_EQ(ini_get_int(ini, nullptr, key, 42), value) << key;
    EXPECT_EQ(ini_get_int(nullptr, nullptr, "dec", 42) + ini_get_int(ini, nullptr, nullptr, 42), 84);
    std::string bools;  // the first character decides; anything else is the default
    for (const char* key : {"a", "b", "c", "d", "e", "f", "g", "h", "i", "j", "k", "l", "m", "none"})
        bools += std::to_string(ini_get_bool(ini, nullptr, key, 7));
    EXPECT_EQ(bools, "11111000007777");
    for (auto [query, value] : {std::pair<const char*, const char*>{"zor:id", "z"}, {":dec", "16"}, {"s:a:b", "colon"},
                                {"zor", "def"}, {"zor:", "def"}, {"none:id", "def"}, {"id", "def"}, {nullptr, "def"}})
        EXPECT_STREQ(ini_lookup_string(ini, query, "def"), value) << (query ? query : "(null)");
    EXPECT_EQ(ini_lookup_int(ini, "zor:n", -1), 31);
    EXPECT_EQ(ini_lookup_int(ini, "zor:missing", -1), -1);
    EXPECT_EQ(ini_lookup_bool(ini, "zor:on", 5) * 10 + ini_lookup_bool(ini, "zor", 5), 15);
    EXPECT_TRUE(ini_str_cmp_nocase("abc", "ABC") == 0 && ini_str_cmp_nocase("", "") == 0);
    EXPECT_TRUE(ini_str_cmp_nocase("abc", "ABD") < 0 && ini_str_cmp_nocase("abcd", "ABC") > 0);
    EXPECT_TRUE(ini_str_cmp_nocase(nullptr, "a") == 1 && ini_str_cmp_nocase("a", nullptr) == 1 &&
                ini_str_cmp_nocase(nullptr, nullptr) == 1);
}

// Newest sections and keys first; the unnamed section is dumped without a
// header and skipped by the section and value listings.
TEST(Ini, SetDumpAndListings) {
    loaded f("top = 0\nmode = top\n[a]\nx = 1\nmode = x\nx = 5\n[b]\nmode = y\n[c]\nother = 1\n");
    ini_t* ini = f.ini.get();
    ASSERT_TRUE(ini);
    auto dump = [&](const char* section) { return written_by([&](FILE* o) { ini_dump_section(ini, o, section); }); };
    auto sections = [&](const char* key, const char* value) {
        return written_by([&](FILE* out) { ini_print_sections(ini, out, key, value); });
    };
    EXPECT_EQ(dump("a"), "[a]\n" + key_line("mode", "x") + key_line("x", "5"));
    EXPECT_EQ(dump(nullptr), key_line("mode", "top") + key_line("top", "0"));
    EXPECT_EQ(dump("none"), "");
    EXPECT_EQ(sections(nullptr, nullptr), "c\nb\na\n");
    EXPECT_EQ(sections("mode", "x") + sections("mode", "top"), "a\n");
    EXPECT_EQ(written_by([&](FILE* out) { ini_print_values(ini, out, "mode"); }), "y\nx\n");
    EXPECT_EQ(ini->dirty, 0);
    EXPECT_EQ(ini_set(ini, "b", nullptr, "x") + ini_set(nullptr, "b", "k", "v"), 2);
    EXPECT_EQ(ini->dirty, 1);
    EXPECT_EQ(ini_set(ini, "b", "mode", "z") + ini_set(ini, "b", "k", "3") + ini_set(ini, "new", "c", nullptr), 0);
    EXPECT_EQ(f.get("new", "c"), "<default>");  // a key set without a value reads as absent, dumps as empty
    EXPECT_EQ(written_by([&](FILE* out) { ini_dump(ini, out); }),
              "[new]\n" + key_line("c", "") + "[c]\n" + key_line("other", "1") + "[b]\n" + key_line("k", "3") +
                  key_line("mode", "z") + dump("a") + dump(nullptr));
}

TEST(Ini, OpenModesFileNamesAndStandardInput) {
    loaded f("[zor]\nfrom = file\n");
    ini_ptr r(ini_open(f.path.c_str(), 'r')), w(ini_open(f.path.c_str(), 'w'));
    ASSERT_TRUE(r && w);
    EXPECT_EQ(*r->path, f.path);
    std::string run_name = "/run/";
    for (char c : f.path) run_name.push_back(c == '/' ? '-' : c);
    EXPECT_EQ(r->run_name, run_name);
    EXPECT_EQ(ini_get_string(w.get(), "zor", "from", ""), std::string("file"));
    EXPECT_EQ(ini_open(f.path.c_str(), 'x'), nullptr);
    EXPECT_EQ(ini_open(f.dir.file("missing.ini").c_str(), 'r'), nullptr);
    EXPECT_EQ(ini_open(f.dir.file("missing.ini").c_str(), 'w'), nullptr);
    ini_free(nullptr);
    // A null path reads standard input and leaves it open.
    int saved = dup(STDIN_FILENO), fd = open(f.path.c_str(), O_RDONLY);
    ASSERT_TRUE(saved >= 0 && fd >= 0 && dup2(fd, STDIN_FILENO) == STDIN_FILENO);
    close(fd);
    clearerr(stdin);
    ini_ptr in(ini_load(nullptr));
    ASSERT_TRUE(in);
    EXPECT_FALSE(in->path);
    EXPECT_EQ(ini_get_string(in.get(), "zor", "from", ""), std::string("file"));
    in.reset();
    EXPECT_NE(fcntl(STDIN_FILENO, F_GETFD), -1) << "standard input was closed";
    dup2(saved, STDIN_FILENO);
    close(saved);
    clearerr(stdin);
}

}  // namespace
