// SPDX-License-Identifier: Apache-2.0
// Reading the JSON files of the simulator (card profiles, terminal profiles,
// key stores, lists, scenarios) with errors a person can act on:
//
//   cards/x.json:12:7: JSON syntax error: unexpected '}'
//   cards/x.json: field applications[0].gpo.aip: expected 4 hex digits
//
// Syntax errors carry the line and column (computed from the byte offset the
// parser reports); errors found while reading a field carry its path. Every
// accessor that fails throws ProfileError; none returns a half-read value.
#pragma once

#include <cstdint>
#include <filesystem>
#include <initializer_list>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "velk/host/tlv.hpp"

namespace velk::card {

using Bytes = velk::host::Bytes;
using Json = nlohmann::ordered_json;

class ProfileError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// A parsed file. Kept alive by the Fields that point into it.
struct JsonFile {
    std::filesystem::path path;
    Json doc;

    // The directory against which relative file names inside it are resolved.
    std::filesystem::path Dir() const { return path.parent_path(); }
};

// What one file may hold: larger files are refused unread, and so is
// anything that is not a regular file (a folder, a FIFO, /dev/zero).
inline constexpr size_t kMaxJsonFileSize = 4 * 1024 * 1024;
// Objects and arrays nested deeper than this are refused while parsing.
inline constexpr size_t kMaxJsonDepth = 64;

// The whole of a regular file of at most kMaxJsonFileSize bytes; anything
// else throws ProfileError naming the file and saying what it is.
std::string ReadTextFile(const std::filesystem::path &path);

// Text with every byte that is not part of well-formed UTF-8 written as \xNN,
// for messages and reports that quote what a file or a card held.
std::string EscapeInvalidUtf8(std::string_view text);

// Parses a file; syntax errors become "path:line:column: ...", a key given
// twice in one object and nesting deeper than kMaxJsonDepth are refused.
std::shared_ptr<const JsonFile> LoadJsonFile(const std::filesystem::path &path);
// The same, for files that may extend another: {"extends": "base.json", ...}
// loads the base (relative to this file) and merges this file's fields over
// it as a JSON merge patch (objects merge member by member, anything else
// replaces, null deletes). Errors name the file that was asked for. The
// top-level members named in path_keys hold file names: each is made
// absolute against the file that wrote it before the files are merged.
std::shared_ptr<const JsonFile> LoadJsonFileWithBase(
    const std::filesystem::path &path, std::initializer_list<std::string_view> path_keys = {});
// The same for text that did not come from a file (name used in messages).
std::shared_ptr<const JsonFile> ParseJsonText(std::string_view text, const std::string &name);

// Line and column (both from 1) of a 1-based byte offset in text.
std::pair<size_t, size_t> LineAndColumn(std::string_view text, size_t byte);

// One value inside a file, with the path that names it in messages.
class Field {
public:
    Field(std::shared_ptr<const JsonFile> file, const Json *value, std::string path);
    explicit Field(std::shared_ptr<const JsonFile> file);

    const std::string &Path() const { return path_; }
    const JsonFile &File() const { return *file_; }
    const Json &Raw() const { return *value_; }

    bool IsNull() const { return value_->is_null(); }
    bool IsObject() const { return value_->is_object(); }
    bool IsArray() const { return value_->is_array(); }
    bool IsString() const { return value_->is_string(); }
    bool Has(std::string_view key) const;

    // A member that must be there.
    Field operator[](std::string_view key) const;
    // A member that may be missing (a JSON null counts as present).
    std::optional<Field> Optional(std::string_view key) const;
    Field At(size_t index) const;

    // Refuses members outside the list, so that a misspelt field is reported
    // rather than silently ignored.
    void OnlyKeys(std::initializer_list<std::string_view> allowed) const;

    std::string String() const;
    bool Bool() const;
    int64_t Int(int64_t min, int64_t max) const;
    // Hex text into bytes; exact_len bytes when given, else min..max bytes.
    Bytes Hex(size_t exact_len) const;
    Bytes HexRange(size_t min_len, size_t max_len) const;
    // A one- to four-byte tag written in hex ("9F02").
    uint32_t Tag() const;
    // A file name relative to the file that names it.
    std::filesystem::path FilePath() const;

    std::vector<Field> Elements() const;                         // array
    std::vector<std::pair<std::string, Field>> Members() const;  // object, in file order

    [[noreturn]] void Fail(const std::string &what) const;

private:
    const Json &Expect(bool ok, const char *what) const;

    std::shared_ptr<const JsonFile> file_;
    const Json *value_;
    std::string path_;
};

// A tag written as hex text ("9F02"); nullopt when it is not one.
std::optional<uint32_t> ParseTagText(std::string_view text);

}  // namespace velk::card
