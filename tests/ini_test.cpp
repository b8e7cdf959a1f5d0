#include "ini.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <set>
#include <string>

#include "test_util.h"

namespace {

using zor_test::temp_dir;

// Writes `text` to `name` inside `dir` and returns the file's path.
std::string put_file(const temp_dir& dir, const std::string& name, const std::string& text) {
    zor_test::write_file(dir.file(name), text);
    return dir.file(name);
}

// Loads `text` from a file; keeps the file's path for messages.
struct loaded {
    temp_dir dir;
    std::string path;
    ini_ptr ini;
    explicit loaded(const std::string& text) : path(put_file(dir, "test.ini", text)), ini(ini_load(path.c_str())) {}
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

std::string get(const ini_t* ini, const char* section, const char* key) {
    return ini_get_string(ini, section, key, "<default>");
}

TEST(Ini, KeysValuesAndSectionsAreReadLiterally) {
    loaded f(
        "top = 0\n"
        "  # indented comment\n"
        "#comment = ignored\n"
        "\n"
        "[ zor ]\n"
        "Auth_Id = abc\n"
        "plain=v\n"
        "spaced   =   a = b   \n"
        "quoted = \"q\" # kept\n"
        "xdb =\n"
        "crlf = yes\r\n");
    ASSERT_TRUE(f.ini);
    EXPECT_EQ(get(f.ini.get(), nullptr, "top"), "0");
    EXPECT_EQ(get(f.ini.get(), "zor", "Auth_Id"), "abc");
    EXPECT_EQ(get(f.ini.get(), "zor", "auth_id"), "<default>");
    EXPECT_EQ(get(f.ini.get(), "ZOR", "Auth_Id"), "<default>");
    EXPECT_EQ(get(f.ini.get(), "zor", "plain"), "v");
    EXPECT_EQ(get(f.ini.get(), "zor", "spaced"), "a = b");
    EXPECT_EQ(get(f.ini.get(), "zor", "quoted"), "\"q\" # kept");
    EXPECT_EQ(get(f.ini.get(), "zor", "xdb"), "");
    EXPECT_EQ(get(f.ini.get(), "zor", "crlf"), "yes");
    EXPECT_EQ(get(f.ini.get(), "zor", "#comment"), "<default>");
    EXPECT_EQ(get(f.ini.get(), nullptr, "#comment"), "<default>");
}

TEST(Ini, EmptyHeaderNamesTheUnnamedSection) {
    loaded f("[zor]\na = 1\n[]\nb = 2\n");
    ASSERT_TRUE(f.ini);
    EXPECT_EQ(get(f.ini.get(), nullptr, "b"), "2");
    EXPECT_EQ(get(f.ini.get(), "zor", "b"), "<default>");
}

TEST(Ini, SyntaxErrorNamesTheLineAndEchoesIt) {
    struct {
        const char* text;
        int line;
        const char* echoed;
    } cases[] = {
        {"[zor]\na = 1\nkey\n", 3, "key"},
        {"   indented without equals  \n", 1, "   indented without equals"},
        {"; semicolon is not a comment\n", 1, "; semicolon is not a comment"},
        {"= value\n", 1, "= value"},
        {"a = 1\\\n2\nbad\n", 3, "bad"},
    };
    for (const auto& c : cases) {
        temp_dir dir;
        std::string path = put_file(dir, "bad.ini", c.text);
        testing::internal::CaptureStderr();
        ini_t* ini = ini_load(path.c_str());
        std::string err = testing::internal::GetCapturedStderr();
        EXPECT_EQ(ini, nullptr) << c.text;
        ini_free(ini);
        std::string n = std::to_string(c.line);
        EXPECT_EQ(err, "iniparser: syntax error in " + path + " (" + n + "):\n-> " + c.echoed +
                           "\niniparser: failure at line " + n + "\n");
    }
}

TEST(Ini, BackslashJoinsLinesWithoutSeparator) {
    loaded f(
        "a = abc\\\n"
        "def\n"
        "b = one \\\n"
        "  two\\\n"
        "three\n"
        "c = 1\n"
        "d = pending\\\n");
    ASSERT_TRUE(f.ini);
    EXPECT_EQ(get(f.ini.get(), nullptr, "a"), "abcdef");
    EXPECT_EQ(get(f.ini.get(), nullptr, "b"), "one   twothree");
    EXPECT_EQ(get(f.ini.get(), nullptr, "c"), "1");
    // A continuation still open at the end of the file is dropped.
    EXPECT_EQ(get(f.ini.get(), nullptr, "d"), "<default>");
}

TEST(Ini, RepeatedSectionDropsEarlierKeysAndKeepsLaterOnes) {
    loaded f("[zor]\na = 1\nb = 2\n[other]\nc = 3\n[zor]\nb = 9\nd = 4\n");
    ASSERT_TRUE(f.ini);
    EXPECT_EQ(get(f.ini.get(), "zor", "a"), "<default>");
    EXPECT_EQ(get(f.ini.get(), "zor", "b"), "9");
    EXPECT_EQ(get(f.ini.get(), "zor", "d"), "4");
    EXPECT_EQ(get(f.ini.get(), "other", "c"), "3");
    // The section keeps its place from its first appearance.
    EXPECT_EQ(written_by([&](FILE* out) { ini_print_sections(f.ini.get(), out, nullptr, nullptr); }),
              "other\nzor\n");
}

TEST(Ini, DumpListsNewestSectionsAndKeysFirst) {
    loaded f("top = 0\n[a]\nx = 1\ny = 2\nx = 5\n[b]\nx = 3\ny = 4\n");
    ASSERT_TRUE(f.ini);
    EXPECT_EQ(written_by([&](FILE* out) { ini_dump(f.ini.get(), out); }),
              "[b]\n" + key_line("y", "4") + key_line("x", "3") + "[a]\n" + key_line("y", "2") +
                  key_line("x", "5") + key_line("top", "0"));
    EXPECT_EQ(written_by([&](FILE* out) { ini_dump_section(f.ini.get(), out, "a"); }),
              "[a]\n" + key_line("y", "2") + key_line("x", "5"));
    EXPECT_EQ(written_by([&](FILE* out) { ini_dump_section(f.ini.get(), out, nullptr); }), key_line("top", "0"));
    EXPECT_EQ(written_by([&](FILE* out) { ini_dump_section(f.ini.get(), out, "none"); }), "");
}

TEST(Ini, LookupSplitsSectionAndKeyAtFirstColon) {
    loaded f("top = t\nn = 7\n[zor]\nid = z\nn = 0x1f\non = yes\n[s]\na:b = colon\n");
    ASSERT_TRUE(f.ini);
    const ini_t* ini = f.ini.get();
    struct {
        const char* query;
        const char* value;
    } strings[] = {
        {"zor:id", "z"}, {":top", "t"},      {"s:a:b", "colon"}, {"zor", "def"},
        {"zor:", "def"}, {"none:id", "def"}, {"id", "def"},      {nullptr, "def"},
    };
    for (const auto& c : strings) {
        EXPECT_STREQ(ini_lookup_string(ini, c.query, "def"), c.value) << (c.query ? c.query : "(null)");
    }
    EXPECT_EQ(ini_lookup_int(ini, "zor:n", -1), 31);
    EXPECT_EQ(ini_lookup_int(ini, ":n", -1), 7);
    EXPECT_EQ(ini_lookup_int(ini, "zor:missing", -1), -1);
    EXPECT_EQ(ini_lookup_bool(ini, "zor:on", 5), 1);
    EXPECT_EQ(ini_lookup_bool(ini, "zor", 5), 5);
}

TEST(Ini, IntegersFollowTheirPrefixBase) {
    loaded f("dec = 16\nhex = 0x10\noct = 010\nneg = -5\ntext = abc\nmixed = 12abc\n");
    ASSERT_TRUE(f.ini);
    struct {
        const char* key;
        long value;
    } cases[] = {{"dec", 16}, {"hex", 16}, {"oct", 8}, {"neg", -5}, {"text", 0}, {"mixed", 12}, {"missing", 42}};
    for (const auto& c : cases) EXPECT_EQ(ini_get_int(f.ini.get(), nullptr, c.key, 42), c.value) << c.key;
    EXPECT_EQ(ini_get_int(nullptr, nullptr, "dec", 42), 42);
    EXPECT_EQ(ini_get_int(f.ini.get(), nullptr, nullptr, 42), 42);
}

TEST(Ini, BoolsReadTheFirstCharacterOnly) {
    const char* text =
        "a = yes\nb = Y\nc = true\nd = 1\ne = t\n"
        "f = no\ng = N\nh = FALSE\ni = 0\nj = f\n"
        "k = maybe\nl =\nm = 2\n";
    loaded f(text);
    ASSERT_TRUE(f.ini);
    struct {
        const char* key;
        int value;
    } cases[] = {{"a", 1}, {"b", 1}, {"c", 1}, {"d", 1}, {"e", 1}, {"f", 0}, {"g", 0},
                 {"h", 0}, {"i", 0}, {"j", 0}, {"k", 7}, {"l", 7}, {"m", 7}, {"none", 7}};
    for (const auto& c : cases) EXPECT_EQ(ini_get_bool(f.ini.get(), nullptr, c.key, 7), c.value) << c.key;
}

TEST(Ini, SetAddsOrReplacesAndMarksDirty) {
    loaded f("[zor]\na = 1\n");
    ASSERT_TRUE(f.ini);
    ini_t* ini = f.ini.get();
    EXPECT_EQ(ini->dirty, 0);
    EXPECT_EQ(ini_set(ini, "zor", nullptr, "x"), 1);
    EXPECT_EQ(ini->dirty, 1);
    EXPECT_EQ(ini_set(ini, "zor", "a", "2"), 0);
    EXPECT_EQ(ini_set(ini, "zor", "b", "3"), 0);
    EXPECT_EQ(ini_set(ini, "new", "c", nullptr), 0);
    EXPECT_EQ(ini_set(nullptr, "zor", "a", "2"), 1);
    EXPECT_EQ(get(ini, "zor", "a"), "2");
    // A key set without a value reads as absent and dumps as empty.
    EXPECT_EQ(get(ini, "new", "c"), "<default>");
    EXPECT_EQ(written_by([&](FILE* out) { ini_dump(ini, out); }),
              "[new]\n" + key_line("c", "") + "[zor]\n" + key_line("b", "3") + key_line("a", "2"));
}

TEST(Ini, PrintSectionsAndValuesSkipTheUnnamedSection) {
    loaded f("mode = top\n[a]\nmode = x\n[b]\nmode = y\n[c]\nother = 1\n[d]\nmode = x\n");
    ASSERT_TRUE(f.ini);
    const ini_t* ini = f.ini.get();
    auto sections = [&](const char* key, const char* value) {
        return written_by([&](FILE* out) { ini_print_sections(ini, out, key, value); });
    };
    EXPECT_EQ(sections(nullptr, nullptr), "d\nc\nb\na\n");
    EXPECT_EQ(sections("mode", "x"), "d\na\n");
    EXPECT_EQ(sections("mode", "top"), "");
    EXPECT_EQ(written_by([&](FILE* out) { ini_print_values(ini, out, "mode"); }), "x\ny\nx\n");
}

TEST(Ini, OpenModesAndFileNames) {
    temp_dir dir;
    std::string path = put_file(dir, "svc.ini", "[zor]\na = 1\n");
    ini_ptr r(ini_open(path.c_str(), 'r'));
    ASSERT_TRUE(r);
    EXPECT_EQ(*r->path, path);
    std::string run_name = "/run/";
    for (char c : path) run_name.push_back(c == '/' ? '-' : c);
    EXPECT_EQ(r->run_name, run_name);
    ini_ptr w(ini_open(path.c_str(), 'w'));
    ASSERT_TRUE(w);
    EXPECT_EQ(get(w.get(), "zor", "a"), "1");
    EXPECT_EQ(ini_open(path.c_str(), 'x'), nullptr);
    EXPECT_EQ(ini_open(dir.file("missing.ini").c_str(), 'r'), nullptr);
    EXPECT_EQ(ini_open(dir.file("missing.ini").c_str(), 'w'), nullptr);
    ini_free(nullptr);
}

TEST(Ini, NullPathReadsStandardInputAndLeavesItOpen) {
    temp_dir dir;
    std::string path = put_file(dir, "stdin.ini", "[zor]\nfrom = stdin\n");
    int saved = dup(STDIN_FILENO);
    ASSERT_GE(saved, 0);
    int fd = open(path.c_str(), O_RDONLY);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(dup2(fd, STDIN_FILENO), STDIN_FILENO);
    close(fd);
    clearerr(stdin);
    ini_t* ini = ini_load(nullptr);
    ASSERT_NE(ini, nullptr);
    EXPECT_FALSE(ini->path);
    EXPECT_EQ(get(ini, "zor", "from"), "stdin");
    ini_free(ini);
    EXPECT_NE(fcntl(STDIN_FILENO, F_GETFD), -1) << "standard input was closed";
    dup2(saved, STDIN_FILENO);
    close(saved);
    clearerr(stdin);
}

TEST(Ini, OverLongLinesArriveInBoundedPieces) {
    // 1023 characters fill the line buffer; the newline comes as an empty line.
    std::string exact = "k = " + std::string(1019, 'v') + "\n";
    loaded fits(exact);
    ASSERT_TRUE(fits.ini);
    EXPECT_EQ(get(fits.ini.get(), nullptr, "k"), std::string(1019, 'v'));

    // The rest of a longer line is a line of its own, here without '='.
    std::string longer = "k = " + std::string(1500, 'v') + "\n";
    temp_dir dir;
    std::string path = put_file(dir, "long.ini", longer);
    testing::internal::CaptureStderr();
    ini_t* ini = ini_load(path.c_str());
    std::string err = testing::internal::GetCapturedStderr();
    EXPECT_EQ(ini, nullptr);
    ini_free(ini);
    EXPECT_NE(err.find("(2):\n-> " + std::string(1500 - 1019, 'v') + "\n"), std::string::npos) << err;

    // A joined line ends where the line buffer ends: 595 + 424 characters
    // of value fit, and the rest of a longer second line is a line of its own.
    std::string head = "k = " + std::string(595, 'a') + "\\\n";
    loaded joined(head + std::string(424, 'b') + "\n");
    ASSERT_TRUE(joined.ini);
    EXPECT_EQ(get(joined.ini.get(), nullptr, "k"), std::string(595, 'a') + std::string(424, 'b'));

    path = put_file(dir, "joined.ini", head + std::string(600, 'b') + "\n");
    testing::internal::CaptureStderr();
    ini = ini_load(path.c_str());
    err = testing::internal::GetCapturedStderr();
    EXPECT_EQ(ini, nullptr);
    ini_free(ini);
    EXPECT_NE(err.find("(3):\n-> " + std::string(600 - 424, 'b') + "\n"), std::string::npos) << err;
}

// Whatever the input, a loaded file holds one record per section name and
// per key, and nothing longer than a work buffer.
TEST(Ini, ArbitraryInputKeepsOneRecordPerName) {
    const char alphabet[] = "[]=#\\ \t\n\r:abAB01x";
    uint32_t seed = 12345;
    auto next = [&seed] {
        seed = seed * 1103515245u + 12345u;
        return seed >> 16;
    };
    int loaded_count = 0;
    for (int round = 0; round < 400; ++round) {
        std::string text;
        size_t len = next() % (round < 380 ? 200 : 3000);
        for (size_t i = 0; i < len; ++i) {
            text.push_back(next() % 10 == 0 ? static_cast<char>(next() & 0xFF)
                                            : alphabet[next() % (sizeof alphabet - 1)]);
        }
        temp_dir dir;
        std::string path = put_file(dir, "fuzz.ini", text);
        testing::internal::CaptureStderr();
        ini_ptr ini(ini_load(path.c_str()));
        testing::internal::GetCapturedStderr();
        if (!ini) continue;
        ++loaded_count;
        std::set<std::string> section_names;
        for (list_node_t* s = list_first(ini->sections.get()); s; s = s->next) {
            auto* sec = static_cast<ini_section_t*>(s->data);
            EXPECT_TRUE(section_names.insert(sec->name ? "[" + *sec->name : "").second) << text;
            std::set<std::string> keys;
            for (list_node_t* k = list_first(sec->keys.get()); k; k = k->next) {
                auto* key = static_cast<ini_key_t*>(k->data);
                EXPECT_TRUE(keys.insert(key->key).second) << text;
                EXPECT_LE(key->key.size(), 1024u);
                EXPECT_LE(key->value->size(), 1024u);
            }
        }
    }
    EXPECT_GT(loaded_count, 0);
}

TEST(Ini, CaseInsensitiveCompare) {
    const char* same = "abc";
    EXPECT_EQ(ini_str_cmp_nocase("abc", "ABC"), 0);
    EXPECT_EQ(ini_str_cmp_nocase("", ""), 0);
    EXPECT_EQ(ini_str_cmp_nocase(same, same), 0);
    EXPECT_LT(ini_str_cmp_nocase("abc", "ABD"), 0);
    EXPECT_GT(ini_str_cmp_nocase("abcd", "ABC"), 0);
    EXPECT_EQ(ini_str_cmp_nocase(nullptr, "a"), 1);
    EXPECT_EQ(ini_str_cmp_nocase("a", nullptr), 1);
    EXPECT_EQ(ini_str_cmp_nocase(nullptr, nullptr), 1);
}

}  // namespace
