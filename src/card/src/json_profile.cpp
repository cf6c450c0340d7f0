// SPDX-License-Identifier: Apache-2.0
#include "velk/card/json_profile.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <set>

namespace velk::card {

namespace {

std::string Quote(std::string_view s) {
    // Built by appending: GCC 12 warns (-Wrestrict) on "'" + std::string(s) + "'"
    // in optimised builds.
    std::string out;
    out.reserve(s.size() + 2);
    out.push_back('\'');
    out.append(s);
    out.push_back('\'');
    return out;
}

std::string TypeName(const Json &v) {
    return v.is_null() ? "null" : std::string(v.type_name());
}

// Refuses what the DOM would take silently or could not take safely: a key
// twice in one object (the last would win), and nesting deeper than
// kMaxJsonDepth (copies, merges and encoders of the document recurse).
class ParseGuard {
public:
    explicit ParseGuard(const std::filesystem::path &path) : path_(path) {}

    bool operator()(int, nlohmann::detail::parse_event_t event, Json &parsed) {
        using E = nlohmann::detail::parse_event_t;
        switch (event) {
            case E::object_start:
            case E::array_start:
                if (frames_.size() >= kMaxJsonDepth)
                    Fail("JSON nested more than " + std::to_string(kMaxJsonDepth) + " levels deep");
                frames_.push_back({event == E::object_start, ChildName(), {}, 0, {}});
                break;
            case E::object_end:
            case E::array_end:
                frames_.pop_back();
                break;
            case E::key: {
                Frame &f = frames_.back();
                f.last_key = parsed.get<std::string>();
                if (!f.keys.insert(f.last_key).second) Fail("duplicate field " + Quote(f.last_key));
                break;
            }
            case E::value:
                if (!frames_.empty() && !frames_.back().object) ++frames_.back().index;
                break;
        }
        return true;
    }

private:
    struct Frame {
        bool object;
        std::string name;  // the path of this container, as Field names it
        std::set<std::string> keys;
        size_t index;
        std::string last_key;
    };

    std::string ChildName() {
        if (frames_.empty()) return "";
        Frame &f = frames_.back();
        if (!f.object) return f.name + "[" + std::to_string(f.index++) + "]";
        return f.name.empty() ? f.last_key : f.name + "." + f.last_key;
    }

    [[noreturn]] void Fail(const std::string &what) const {
        const std::string &where = frames_.empty() ? std::string() : frames_.back().name;
        throw ProfileError(EscapeInvalidUtf8(
            path_.string() + ": " + (where.empty() ? "" : "field " + where + ": ") + what));
    }

    const std::filesystem::path &path_;
    std::vector<Frame> frames_;
};

// The library's messages start with "[json.exception.x.n] "; keep what follows.
std::string WithoutPrefix(const std::string &what) {
    const size_t end = what.rfind("] ", what.find(' '));
    return end == std::string::npos ? what : what.substr(end + 2);
}

std::shared_ptr<const JsonFile> Parse(std::string_view text, const std::filesystem::path &path) {
    auto file = std::make_shared<JsonFile>();
    file->path = path;
    try {
        file->doc = Json::parse(text.begin(), text.end(), ParseGuard(path));
    } catch (const Json::parse_error &e) {
        // The message goes on with "parse error at line x, column y: "; keep
        // only what follows and compute the place from the byte offset.
        std::string what = e.what();
        if (const size_t colon = what.find(": "); colon != std::string::npos)
            what = what.substr(colon + 2);
        const auto [line, column] = LineAndColumn(text, e.byte);
        throw ProfileError(EscapeInvalidUtf8(path.string() + ":" + std::to_string(line) + ":" +
                                             std::to_string(column) +
                                             ": JSON syntax error: " + what));
    } catch (const Json::exception &e) {
        // A number too large for a double (1e400).
        throw ProfileError(EscapeInvalidUtf8(path.string() + ": " + WithoutPrefix(e.what())));
    }
    return file;
}

}  // namespace

std::pair<size_t, size_t> LineAndColumn(std::string_view text, size_t byte) {
    size_t line = 1, column = 1;
    const size_t end = std::min(byte == 0 ? 0 : byte - 1, text.size());
    for (size_t i = 0; i < end; ++i) {
        if (text[i] == '\n') {
            ++line;
            column = 1;
        } else {
            ++column;
        }
    }
    return {line, column};
}

namespace {

std::string WhatItIs(mode_t mode) {
    if (S_ISDIR(mode)) return "a folder";
    if (S_ISFIFO(mode)) return "a FIFO";
    if (S_ISCHR(mode)) return "a character device";
    if (S_ISBLK(mode)) return "a block device";
    if (S_ISSOCK(mode)) return "a socket";
    return "not a regular file";
}

class Fd {
public:
    explicit Fd(int fd) : fd_(fd) {}
    Fd(const Fd &) = delete;
    Fd &operator=(const Fd &) = delete;
    ~Fd() {
        if (fd_ >= 0) close(fd_);
    }
    int get() const { return fd_; }

private:
    int fd_;
};

}  // namespace

std::string ReadTextFile(const std::filesystem::path &path) {
    const auto fail = [&](const std::string &what) -> ProfileError {
        return ProfileError(EscapeInvalidUtf8(path.string() + ": " + what));
    };
    // Not blocking: a FIFO must not hang the open; it is refused below.
    const Fd fd(open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    if (fd.get() < 0)
        throw fail(errno == ENOENT ? "no such file"
                                   : std::string("cannot open: ") + std::strerror(errno));
    struct stat st {};
    if (fstat(fd.get(), &st) != 0) throw fail(std::string("cannot read: ") + std::strerror(errno));
    if (!S_ISREG(st.st_mode)) throw fail("is " + WhatItIs(st.st_mode) + ", not a file");
    const auto too_large = [&] {
        return fail("larger than " + std::to_string(kMaxJsonFileSize / (1024 * 1024)) +
                    " MiB, the most read of one file");
    };
    if (static_cast<uintmax_t>(st.st_size) > kMaxJsonFileSize) throw too_large();
    std::string text(static_cast<size_t>(st.st_size) + 1, '\0');
    size_t got = 0;
    for (;;) {
        if (got == text.size()) {
            // The file grew while it was read.
            if (text.size() > kMaxJsonFileSize) throw too_large();
            text.resize(std::min(2 * text.size(), kMaxJsonFileSize + 1));
        }
        const ssize_t n = read(fd.get(), text.data() + got, text.size() - got);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) throw fail(std::string("cannot read: ") + std::strerror(errno));
        if (n == 0) break;
        got += static_cast<size_t>(n);
    }
    text.resize(got);
    return text;
}

std::string EscapeInvalidUtf8(std::string_view s) {
    std::string out;
    out.reserve(s.size());
    for (size_t i = 0; i < s.size();) {
        const auto c = static_cast<uint8_t>(s[i]);
        // Length of a well-formed sequence starting here, 0 when there is none.
        size_t n = c < 0x80                 ? 1
                   : c >= 0xC2 && c <= 0xDF ? 2
                   : c >= 0xE0 && c <= 0xEF ? 3
                   : c >= 0xF0 && c <= 0xF4 ? 4
                                            : 0;
        if (n > s.size() - i) n = 0;
        for (size_t k = 1; k < n; ++k) {
            const auto x = static_cast<uint8_t>(s[i + k]);
            const bool second = k == 1;
            const uint8_t lo = second && c == 0xE0 ? 0xA0 : second && c == 0xF0 ? 0x90 : 0x80;
            const uint8_t hi = second && c == 0xED ? 0x9F : second && c == 0xF4 ? 0x8F : 0xBF;
            if (x < lo || x > hi) n = 0;
        }
        if (n == 0) {
            static constexpr char kDigits[] = "0123456789ABCDEF";
            out += "\\x";
            out += kDigits[c >> 4];
            out += kDigits[c & 0x0F];
            ++i;
            continue;
        }
        out.append(s.substr(i, n));
        i += n;
    }
    return out;
}

std::shared_ptr<const JsonFile> LoadJsonFile(const std::filesystem::path &path) {
    return Parse(ReadTextFile(path), path);
}

namespace {

Json LoadMerged(const std::filesystem::path &path,
                std::initializer_list<std::string_view> path_keys, int depth) {
    const auto file = LoadJsonFile(path);
    Json doc = file->doc;
    if (!doc.is_object()) return doc;
    const Field self(file);
    // Made absolute, so that reading the merged document resolves each name
    // once, against the file that wrote it. A name that is no file next to
    // it is kept as written: the reader may know it otherwise (a bundled
    // profile's name).
    for (std::string_view key : path_keys)
        if (auto f = self.Optional(key); f && f->IsString()) {
            std::error_code ec;
            const auto p = std::filesystem::absolute(f->FilePath(), ec).lexically_normal();
            if (!ec && std::filesystem::exists(p, ec)) doc[std::string(key)] = p.string();
        }
    if (!doc.contains("extends")) return doc;
    const std::filesystem::path base = self["extends"].FilePath();
    if (depth >= 8) self["extends"].Fail("files extend each other more than 8 deep");
    Json merged = LoadMerged(base, path_keys, depth + 1);
    doc.erase("extends");
    merged.merge_patch(doc);
    return merged;
}

}  // namespace

std::shared_ptr<const JsonFile> LoadJsonFileWithBase(
    const std::filesystem::path &path, std::initializer_list<std::string_view> path_keys) {
    auto file = std::make_shared<JsonFile>();
    file->path = path;
    file->doc = LoadMerged(path, path_keys, 0);
    return file;
}

std::shared_ptr<const JsonFile> ParseJsonText(std::string_view text, const std::string &name) {
    return Parse(text, name);
}

std::optional<uint32_t> ParseTagText(std::string_view text) {
    Bytes b;
    try {
        b = velk::host::FromHex(text);
    } catch (const std::invalid_argument &) {
        return std::nullopt;
    }
    if (b.empty() || b.size() > 4) return std::nullopt;
    // The bytes must be one BER tag, no more and no less.
    const bool multi = (b[0] & 0x1F) == 0x1F;
    if (multi != (b.size() > 1)) return std::nullopt;
    for (size_t i = 1; i < b.size(); ++i) {
        const bool more = (b[i] & 0x80) != 0;
        if (more != (i + 1 < b.size())) return std::nullopt;
    }
    uint32_t tag = 0;
    for (uint8_t x : b)
        tag = tag << 8 | x;
    return tag;
}

Field::Field(std::shared_ptr<const JsonFile> file, const Json *value, std::string path)
    : file_(std::move(file)), value_(value), path_(std::move(path)) {}

Field::Field(std::shared_ptr<const JsonFile> file) : file_(std::move(file)) {
    value_ = &file_->doc;
}

void Field::Fail(const std::string &what) const {
    const std::string where = path_.empty() ? "" : "field " + path_ + ": ";
    throw ProfileError(EscapeInvalidUtf8(file_->path.string() + ": " + where + what));
}

const Json &Field::Expect(bool ok, const char *what) const {
    if (!ok) Fail(std::string("expected ") + what + ", found " + TypeName(*value_));
    return *value_;
}

bool Field::Has(std::string_view key) const {
    return value_->is_object() && value_->contains(key);
}

Field Field::operator[](std::string_view key) const {
    Expect(value_->is_object(), "an object");
    const auto it = value_->find(key);
    if (it == value_->end()) Fail("missing field " + Quote(key));
    return Field(file_, &*it, path_.empty() ? std::string(key) : path_ + "." + std::string(key));
}

std::optional<Field> Field::Optional(std::string_view key) const {
    if (!Has(key)) {
        Expect(value_->is_object(), "an object");
        return std::nullopt;
    }
    return (*this)[key];
}

Field Field::At(size_t index) const {
    Expect(value_->is_array(), "an array");
    if (index >= value_->size()) Fail("no element " + std::to_string(index));
    return Field(file_, &(*value_)[index], path_ + "[" + std::to_string(index) + "]");
}

void Field::OnlyKeys(std::initializer_list<std::string_view> allowed) const {
    Expect(value_->is_object(), "an object");
    for (const auto &[key, v] : value_->items()) {
        (void)v;
        if (std::find(allowed.begin(), allowed.end(), key) != allowed.end()) continue;
        std::string list;
        for (std::string_view a : allowed)
            list += (list.empty() ? "" : ", ") + std::string(a);
        const std::string where = path_.empty() ? "" : "field " + path_ + ": ";
        throw ProfileError(EscapeInvalidUtf8(file_->path.string() + ": " + where +
                                             "unknown field " + Quote(key) + " (known: " + list +
                                             ")"));
    }
}

std::string Field::String() const {
    return Expect(value_->is_string(), "a string").get<std::string>();
}

bool Field::Bool() const {
    return Expect(value_->is_boolean(), "true or false").get<bool>();
}

int64_t Field::Int(int64_t min, int64_t max) const {
    Expect(value_->is_number_integer(), "an integer");
    const auto range = [&](const std::string &found) {
        Fail("expected an integer from " + std::to_string(min) + " to " + std::to_string(max) +
             ", found " + found);
    };
    // Above INT64_MAX the value is only held unsigned.
    if (value_->is_number_unsigned() && value_->get<uint64_t>() > INT64_MAX)
        range(std::to_string(value_->get<uint64_t>()));
    const int64_t v = value_->get<int64_t>();
    if (v < min || v > max) range(std::to_string(v));
    return v;
}

Bytes Field::Hex(size_t exact_len) const {
    return HexRange(exact_len, exact_len);
}

Bytes Field::HexRange(size_t min_len, size_t max_len) const {
    const auto digits = [](size_t n) { return std::to_string(2 * n) + " hex digits"; };
    const std::string want = min_len == max_len ? digits(min_len)
                             : max_len == SIZE_MAX
                                 ? "at least " + digits(min_len)
                                 : std::to_string(2 * min_len) + " to " + digits(max_len);
    if (!value_->is_string()) Fail("expected " + want + ", found " + TypeName(*value_));
    Bytes b;
    try {
        b = velk::host::FromHex(value_->get<std::string>());
    } catch (const std::invalid_argument &e) {
        Fail("expected " + want + " (" + e.what() + ")");
    }
    if (b.size() < min_len || b.size() > max_len)
        Fail("expected " + want + ", found " + std::to_string(2 * b.size()));
    return b;
}

uint32_t Field::Tag() const {
    const std::string text = String();
    const auto tag = ParseTagText(text);
    if (!tag) Fail("expected a tag of 1 to 4 bytes in hex, found " + Quote(text));
    return *tag;
}

std::filesystem::path Field::FilePath() const {
    const std::filesystem::path p = String();
    if (p.empty()) Fail("expected a file name");
    return p.is_absolute() ? p : file_->Dir() / p;
}

std::vector<Field> Field::Elements() const {
    Expect(value_->is_array(), "an array");
    std::vector<Field> out;
    for (size_t i = 0; i < value_->size(); ++i)
        out.push_back(At(i));
    return out;
}

std::vector<std::pair<std::string, Field>> Field::Members() const {
    Expect(value_->is_object(), "an object");
    std::vector<std::pair<std::string, Field>> out;
    for (auto it = value_->begin(); it != value_->end(); ++it)
        out.emplace_back(
            it.key(), Field(file_, &it.value(), path_.empty() ? it.key() : path_ + "." + it.key()));
    return out;
}

}  // namespace velk::card
