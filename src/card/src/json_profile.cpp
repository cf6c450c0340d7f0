#include "velk/card/json_profile.hpp"

#include <algorithm>
#include <fstream>
#include <sstream>

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

std::shared_ptr<const JsonFile> Parse(std::string_view text, const std::filesystem::path &path) {
    auto file = std::make_shared<JsonFile>();
    file->path = path;
    try {
        file->doc = Json::parse(text.begin(), text.end());
    } catch (const Json::parse_error &e) {
        // The parser's message starts with its own "[json.exception...] parse
        // error at line x, column y: " prefix; keep only what follows.
        std::string what = e.what();
        if (const size_t colon = what.find(": "); colon != std::string::npos)
            what = what.substr(colon + 2);
        const auto [line, column] = LineAndColumn(text, e.byte);
        throw ProfileError(path.string() + ":" + std::to_string(line) + ":" +
                           std::to_string(column) + ": JSON syntax error: " + what);
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

std::shared_ptr<const JsonFile> LoadJsonFile(const std::filesystem::path &path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) throw ProfileError(path.string() + ": cannot open the file");
    std::ostringstream text;
    text << in.rdbuf();
    return Parse(text.str(), path);
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
    throw ProfileError(file_->path.string() + ": " + where + what);
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
        throw ProfileError(file_->path.string() + ": " + where + "unknown field " + Quote(key) +
                           " (known: " + list + ")");
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
    const int64_t v = value_->get<int64_t>();
    if (v < min || v > max)
        Fail("expected an integer from " + std::to_string(min) + " to " + std::to_string(max) +
             ", found " + std::to_string(v));
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
                                 : digits(min_len) + " to " + std::to_string(2 * max_len);
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
