/*
 * acl.cpp - the access rules: parsing a rule file, judging a request, and
 * establishing a client's identity from its handshake and certificate.
 *
 * Each group keeps, per right, its prefix rules sorted with every prefix
 * that another one covers left out, and its exact keys sorted. In such a
 * prefix list the only candidate to cover a key is the greatest prefix not
 * above it (the keys starting with a prefix form one interval that begins
 * at the prefix), so a request costs two binary searches per group.
 */
#include "acl.h"

#include <errno.h>
#include <stdio.h>
#include <string.h>

#include <algorithm>

#include "hspace_codec.h"
#include "store/store.h"

namespace hspace {
namespace service {

namespace {

bool starts_with(std::string_view s, std::string_view prefix)
{
    return s.size() >= prefix.size() && s.compare(0, prefix.size(), prefix) == 0;
}

int hex_digit(char ch)
{
    if (ch >= '0' && ch <= '9') return ch - '0';
    if (ch >= 'a' && ch <= 'f') return ch - 'a' + 10;
    if (ch >= 'A' && ch <= 'F') return ch - 'A' + 10;
    return -1;
}

// The bytes a field's text stands for, its escapes undone. False, with
// the problem in *why, on an escape that is not one.
bool unescape(std::string_view text, std::string *out, std::string *why)
{
    out->clear();
    for (size_t i = 0; i < text.size(); i++) {
        if (text[i] != '\\') {
            out->push_back(text[i]);
            continue;
        }
        if (++i == text.size()) {
            *why = "'\\' ends the field; write \\\\ for a backslash";
            return false;
        }
        switch (text[i]) {
        case '\\': out->push_back('\\'); break;
        case 't': out->push_back('\t'); break;
        case 'n': out->push_back('\n'); break;
        case 'r': out->push_back('\r'); break;
        case 'x': {
            int hi = i + 1 < text.size() ? hex_digit(text[i + 1]) : -1;
            int lo = i + 2 < text.size() ? hex_digit(text[i + 2]) : -1;
            if (hi < 0 || lo < 0) {
                *why = "\\x needs two hex digits";
                return false;
            }
            out->push_back(static_cast<char>(hi * 16 + lo));
            i += 2;
            break;
        }
        default:
            *why = "unknown escape \\" + escape_field(text.substr(i, 1)) + " (\\xNN, \\t, \\n, \\r or \\\\)";
            return false;
        }
    }
    return true;
}

// Sorts a list and drops duplicates; with prefixes, also every prefix that
// starts with another one (sorted, such a prefix follows the shortest one
// it starts with, which is the last one kept).
void settle(std::vector<std::string> &list, bool prefixes)
{
    std::sort(list.begin(), list.end());
    list.erase(std::unique(list.begin(), list.end()), list.end());
    if (!prefixes) return;
    size_t kept = 0;
    for (size_t i = 0; i < list.size(); i++) {
        if (kept > 0 && starts_with(list[i], list[kept - 1])) continue;
        if (kept != i) list[kept] = std::move(list[i]);
        kept++;
    }
    list.resize(kept);
}

} // namespace

bool Acl::Grants::covers(std::string_view key, bool pattern) const
{
    auto it = std::upper_bound(prefixes.begin(), prefixes.end(), key);
    if (it != prefixes.begin() && starts_with(key, *std::prev(it))) return true;
    return !pattern && std::binary_search(keys.begin(), keys.end(), key);
}

std::shared_ptr<const Acl> Acl::parse(std::string_view text, std::string *error)
{
    size_t line = 0;
    std::string problem;
    std::shared_ptr<const Acl> acl = build(text, &line, &problem);
    if (!acl && error != nullptr) *error = "line " + std::to_string(line) + ": " + problem;
    return acl;
}

std::shared_ptr<const Acl> Acl::build(std::string_view text, size_t *number, std::string *problem)
{
    std::shared_ptr<Acl> acl(new Acl);
    *number = 0;
    auto fail = [problem](const std::string &why) {
        *problem = why;
        return nullptr;
    };
    while (!text.empty()) {
        ++*number;
        size_t end = text.find('\n');
        std::string_view line = text.substr(0, end);
        text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
        if (!line.empty() && line.back() == '\r') line.remove_suffix(1);

        std::string_view fields[3];
        size_t n = 0;
        for (size_t at = 0; at < line.size();) {
            unsigned char ch = static_cast<unsigned char>(line[at]);
            if (ch == ' ' || ch == '\t') {
                at++;
                continue;
            }
            if (ch == '#') break;
            size_t stop = at;
            for (; stop < line.size() && line[stop] != ' ' && line[stop] != '\t'; stop++) {
                unsigned char b = static_cast<unsigned char>(line[stop]);
                if (b < 0x20 || b == 0x7F) return fail("control byte " + escape_field(line.substr(stop, 1)));
            }
            if (n < 3) fields[n] = line.substr(at, stop - at);
            n++;
            at = stop;
        }
        if (n == 0) continue;
        if (n != 3)
            return fail("expected GROUP RIGHTS PATTERN, found " + std::to_string(n) + " field" + (n == 1 ? "" : "s"));

        bool read = fields[1] == "r" || fields[1] == "rw";
        bool write = fields[1] == "w" || fields[1] == "rw";
        if (!read && !write) return fail("rights '" + escape_field(fields[1]) + "' are not r, w or rw");

        std::string group, pattern, why;
        if (!unescape(fields[0], &group, &why)) return fail("group: " + why);
        // '*' is never part of an escape: a final one is the pattern's.
        bool prefix = fields[2].back() == '*';
        if (prefix) fields[2].remove_suffix(1);
        if (!unescape(fields[2], &pattern, &why)) return fail("pattern: " + why);
        if (pattern.size() > codec::kMaxString)
            return fail("the pattern is " + std::to_string(pattern.size()) + " bytes; a key is at most " +
                        std::to_string(codec::kMaxString));

        Group &g = acl->groups_[group];
        for (Grants *grants : {read ? &g.read : nullptr, write ? &g.write : nullptr}) {
            if (grants == nullptr) continue;
            (prefix ? grants->prefixes : grants->keys).push_back(pattern);
        }
        acl->rules_++;
    }
    for (auto &entry : acl->groups_) {
        for (Grants *grants : {&entry.second.read, &entry.second.write}) {
            settle(grants->prefixes, true);
            settle(grants->keys, false);
        }
    }
    return acl;
}

std::shared_ptr<const Acl> Acl::load(const std::string &path, std::string *error)
{
    std::string text, why;
    FILE *f = fopen(path.c_str(), "rb");
    if (f != nullptr) {
        char chunk[65536];
        size_t n;
        while ((n = fread(chunk, 1, sizeof chunk, f)) > 0) text.append(chunk, n);
        if (ferror(f)) why = strerror(errno);
        fclose(f);
    } else {
        why = strerror(errno);
    }
    if (!why.empty()) {
        if (error != nullptr) *error = "cannot read " + path + ": " + why;
        return nullptr;
    }
    size_t line = 0;
    std::shared_ptr<const Acl> acl = build(text, &line, &why);
    // A place in a file named as compilers name it.
    if (!acl && error != nullptr) *error = path + ":" + std::to_string(line) + ": " + why;
    return acl;
}

bool Acl::grants(const std::vector<std::string> &groups, Right right, std::string_view key, bool pattern) const
{
    for (const std::string &name : groups) {
        auto it = groups_.find(name);
        if (it == groups_.end()) continue;
        const Grants &g = right == kRead ? it->second.read : it->second.write;
        if (g.covers(key, pattern)) return true;
    }
    return false;
}

bool Acl::permits(const std::vector<std::string> &groups, uint8_t opcode, std::string_view key) const
{
    switch (opcode) {
    case codec::kOpPut:
    case codec::kOpRemove:
        return grants(groups, kWrite, key, false);
    case codec::kOpGet:
    case codec::kOpPost:
        if (is_pattern(key)) return grants(groups, kRead, key.substr(0, key.size() - 1), true);
        return grants(groups, kRead, key, false);
    default:
        return true;
    }
}

std::string escape_field(std::string_view bytes)
{
    static const char kHex[] = "0123456789abcdef";
    std::string out;
    out.reserve(bytes.size());
    for (char ch : bytes) {
        unsigned char b = static_cast<unsigned char>(ch);
        switch (b) {
        case '\\': out += "\\\\"; break;
        case '\t': out += "\\t"; break;
        case '\n': out += "\\n"; break;
        case '\r': out += "\\r"; break;
        default:
            if (b > 0x20 && b < 0x7F && b != '"' && b != '#') {
                out.push_back(ch);
            } else {
                out += "\\x";
                out.push_back(kHex[b >> 4]);
                out.push_back(kHex[b & 15]);
            }
        }
    }
    return out;
}

std::string describe(const Identity &who)
{
    std::string text = "client \"" + escape_field(who.name) + "\" in ";
    if (who.groups.empty()) text += "no group";
    for (size_t i = 0; i < who.groups.size(); i++) {
        text += i > 0 ? ", \"" : who.groups.size() == 1 ? "group \"" : "groups \"";
        text += escape_field(who.groups[i]) + "\"";
    }
    return who.certified ? text + " (certificate)" : text;
}

std::optional<Identity> identify(std::string_view name, std::string_view group, const Subject *subject,
                                 std::string *why)
{
    if (subject == nullptr) return Identity{std::string(name), {std::string(group)}, false};
    const std::vector<std::string> &os = subject->organizations;
    if (!name.empty() && name != "anonymous" && name != subject->common_name) {
        *why = "the handshake claims name \"" + escape_field(name) + "\", the certificate's CN is \"" +
               escape_field(subject->common_name) + "\"";
        return std::nullopt;
    }
    if (!group.empty() && group != "default" && std::find(os.begin(), os.end(), group) == os.end()) {
        std::string held;
        for (const std::string &o : os) held += (held.empty() ? "\"" : ", \"") + escape_field(o) + "\"";
        *why = "the handshake claims group \"" + escape_field(group) + "\", which is not an O value of the "
               "certificate (" + (held.empty() ? std::string("none") : held) + ")";
        return std::nullopt;
    }
    return Identity{subject->common_name, os, true};
}

} // namespace service
} // namespace hspace
