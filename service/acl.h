/*
 * acl.h - who may do what, and where: the service's access rules, judged
 * once per request before the store, and the identity a handshake
 * establishes. The code that reads and writes keys never looks at either.
 *
 * A rule file holds one rule a line, GROUP RIGHTS PATTERN, separated by
 * blanks; '#' at the start of a field comments out the rest of the line:
 *
 *   # the billing service owns its keys, auditors read them
 *   billing rw billing:*
 *   audit   r  billing:*
 *   ops     w  config:motd
 *
 * RIGHTS is r (get and subscribe), w (put and remove) or rw. PATTERN is an
 * exact key, or a prefix followed by '*' that covers every key starting
 * with it ('*' alone covers every key). GROUP and PATTERN are bytes; a byte
 * that cannot stand in a field is written as an escape: \xNN (two hex
 * digits), \t, \n, \r or \\ (so \x20 is a blank, \x23 a '#', and a key
 * ending in a literal '*' is written with \x2a).
 *
 * Each rule grants an interval of the flat key space: one key, or every key
 * with a prefix. A request is permitted when one rule of one of the client's
 * groups grants the right it needs over all it touches: a put, remove, or a
 * get or subscription of one key, that key; a get or subscription of a
 * pattern PREFIX*, every key with PREFIX, which only a prefix rule whose
 * prefix PREFIX starts with grants. A cancel needs no right: it only ends
 * the connection's own subscription.
 *
 * Threads: an Acl is immutable once built, so any thread may judge with it;
 * the service swaps whole Acls (shared_ptr) when it reloads its file.
 */
#ifndef HSPACE_SERVICE_ACL_H
#define HSPACE_SERVICE_ACL_H

#include <stddef.h>
#include <stdint.h>

#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace hspace {
namespace service {

class Acl {
public:
    // What a request needs of a rule.
    enum Right : uint8_t {
        kRead = 1,                             // get, subscribe
        kWrite = 2,                            // put, remove
    };

    // The rules in text, one a line. Null, with "line N: PROBLEM" in *error
    // (N counted from 1), when a line is not a rule, a comment or blank.
    static std::shared_ptr<const Acl> parse(std::string_view text, std::string *error);
    // The rules in the file at path. Null, with "PATH:N: PROBLEM" or
    // "cannot read PATH: REASON" in *error, when it cannot be read or parsed.
    static std::shared_ptr<const Acl> load(const std::string &path, std::string *error);

    // True when a rule of one of groups grants right over key taken
    // literally, or, when pattern is true, over every key that starts with
    // key (the request of pattern key*). Costs O(log R) key comparisons per
    // group of R rules.
    bool grants(const std::vector<std::string> &groups, Right right, std::string_view key, bool pattern) const;

    // True when groups may send this request (opcode and key as received):
    // put and remove need kWrite over the key, get and post kRead over the
    // key or its pattern (a key ending in '*'); cancel and opcodes that
    // reach no store are permitted.
    bool permits(const std::vector<std::string> &groups, uint8_t opcode, std::string_view key) const;

    size_t rules() const { return rules_; }

private:
    // parse(), with the problem and its line number apart.
    static std::shared_ptr<const Acl> build(std::string_view text, size_t *line, std::string *problem);

    // One group's grants of one right.
    struct Grants {
        std::vector<std::string> prefixes;     // sorted; none is a prefix of another
        std::vector<std::string> keys;         // sorted exact keys
        bool covers(std::string_view key, bool pattern) const;
    };
    struct Group {
        Grants read;                           // rules with r
        Grants write;                          // rules with w
    };

    std::unordered_map<std::string, Group> groups_; // by group name
    size_t rules_ = 0;                         // rule lines parsed
};

// Writes bytes the way rule fields are written: bytes outside printable
// ASCII, blanks, '\\', '"' and '#' become escapes. For log lines, which
// then stay one line and can be pasted into a rule file.
std::string escape_field(std::string_view bytes);

// Who a connection's client is, as its handshake established it.
struct Identity {
    std::string name;                          // the client's name
    std::vector<std::string> groups;           // its groups: the rules of each apply
    bool certified = false;                    // taken from a verified client certificate
};

// "client "NAME" in group "G"" (or groups "G1", "G2", or no group), plus
// " (certificate)" when certified: for log lines, every field escaped.
std::string describe(const Identity &who);

// The subject of a client certificate that the TLS layer has verified.
struct Subject {
    std::string common_name;                   // the subject's CN
    std::vector<std::string> organizations;    // every O value of the subject, in order
};

// The identity of a client whose handshake claims name and group. Without a
// certificate (subject null) the claims as they are. With one, the
// certificate's CN as name and its O values as groups, provided the claims
// agree: the name claimed is the CN and the group claimed one of the O
// values, where a claim that is empty or the client library's default
// ("anonymous" for the name, "default" for the group) claims nothing. None,
// with the disagreement in *why, when they do not.
std::optional<Identity> identify(std::string_view name, std::string_view group, const Subject *subject,
                                 std::string *why);

} // namespace service
} // namespace hspace

#endif /* HSPACE_SERVICE_ACL_H */
