// The kernel simulator's command language. The same commands come from the
// command line (words separated by a lone ";") or from a script file (one
// command a line, '#' starts a comment, quotes as in the shell):
//
//   announce [fid=N] [name=TEXT] [attr=N]          controller reply for the family
//   domain TEXT [flags=N] [...]                    type 20, 256-byte field
//   addr TEXT [type=21|22] [flags=N] [...]         type 21, 40-byte field
//   event [type=N] [len=N] [text=TEXT] [...]       any record
//   wake [...]                                     type 0, no data, flags=1
//   raw HEX...                                     bytes as given
//   sleep MS                                       pause
//
// Header tweaks accepted by every datagram command: nlmsg_len=N (a lie),
// nltype=N, cmd=N, cut=N (send only N leading bytes); events also take
// fid=N and data_len=N (the data_len word alone). An announce with fid=N
// makes N the family id of the events after it. "{n}" in a text or name
// becomes the repetition number. Numbers take 0x and 0 prefixes.
#pragma once

#include <cstdint>
#include <istream>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "kernsim_msg.h"

enum class ks_op { announce, event, raw, sleep };

struct ks_command {
    ks_op op = ks_op::event;
    ks_announce announce;  // op announce
    ks_event event;        // op event
    bool fid_given = false;  // the command names its family id; else the default applies
    std::vector<uint8_t> raw;
    unsigned sleep_ms = 0;
};

// Splits one script line into words. Blanks separate words; '...' is taken
// literally; "..." understands \\ \" \n \t and \xHH; a word starting with '#'
// ends the line. Returns false with `err` set on an unterminated quote or a
// bad escape.
bool ks_split_line(std::string_view line, std::vector<std::string>& words, std::string& err);

// Parses one command from its words (the first is the verb).
std::optional<ks_command> ks_parse_command(const std::vector<std::string>& words,
                                           std::string& err);

// Parses a whole script; `err` names the line ("NAME:LINE: ...").
bool ks_parse_script(std::istream& in, const std::string& name, std::vector<ks_command>& out,
                     std::string& err);

// Parses command-line words: commands separated by a word ";".
bool ks_parse_words(const std::vector<std::string>& words, std::vector<ks_command>& out,
                    std::string& err);

// The datagram for a command at repetition `index`; empty for sleep.
std::vector<uint8_t> ks_materialize(const ks_command& c, uint16_t default_fid, unsigned index,
                                    uint32_t seq);
