// Index files beside a table: which tags they hold, and the entries of a tag in stored order.
//
// A reader per kind gives tags and entries alike. Files are read page by page; what leads outside
// the file, comes back to a page that has been seen, or counts more than a page can hold, is
// damage, which is thrown as a Refusal that names the file.
#pragma once

#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "mira.h"

namespace mira::tables {

enum class IndexKind : u8 { Cdx, CompactIdx, OldIdx, Ntx, Ndx, Mdx };

/// How the keys of a tag stand in the file.
enum class KeyForm : u8 {
    Unknown,       // .cdx and .idx do not say it: the expression does
    Text,          // bytes; logicals are T and F
    Digits,        // .ntx numbers: zero-padded text, complemented when negative
    LittleDouble,  // .ndx numbers and dates, .mdx dates
    Decimal        // .mdx numbers: BCD
};

/// One order of an index file.
struct Tag {
    std::string name{};        ///< empty: the only order of a file that names none
    std::string expression{};  ///< as stored, without blanks at the ends, in the table's page
    std::string condition{};   ///< of FOR; empty: all records
    std::string collation{};   ///< collating sequence; empty: by bytes
    bool unique = false;       ///< one entry for every key, that of the first record
    bool candidate = false;    ///< no two records have the same key
    bool descending = false;
    bool bitmap = false;  ///< made with BINARY: it has no keys
    KeyForm form = KeyForm::Unknown;
    u32 keyLength = 0;   ///< bytes
    u32 decimals = 0;    ///< of Digits
    u64 header = 0;      ///< place of its header in the file
    u64 root = 0;        ///< place of its root page; 0: no entries
    u32 itemLength = 0;  ///< bytes per entry in a page, where all have the same
};

/// An index file, open for reading until the record goes.
struct IndexFile {
    std::string path;
    IndexKind kind = IndexKind::Cdx;
    std::vector<Tag> tags{};
    bool isCompound = false;  ///< .cdx: a directory names the tags
    u32 nameLength = 0;       ///< bytes of a name in it
    u32 pageSize = 512;
    u64 size = 0;
    int descriptor = -1;

    explicit IndexFile(std::string name) : path(std::move(name)) {}
    ~IndexFile();
    IndexFile(IndexFile&& other) noexcept;
    IndexFile& operator=(IndexFile&&) = delete;
    IndexFile(const IndexFile&) = delete;
    IndexFile& operator=(const IndexFile&) = delete;
};

/// "compound index", as `mira info` names a kind, and its usual extension without the point.
const char* kindName(IndexKind kind);

/// Reads the tags. Throws a Refusal when the file cannot be read or is no index file of the kind
/// that its extension says.
IndexFile openIndex(const std::string& path);

/// Takes an entry: its key, of keyLength bytes, and its record from 1. False stops.
using TakeEntry = std::function<bool(std::string_view key, u32 record)>;
/// Hands over all entries of a tag in stored order. filler stands for bytes that a .cdx leaves out
/// at the end of a key: a blank for texts, else zero. Throws a Refusal for damage.
void eachEntry(const IndexFile& file, const Tag& tag, char filler, const TakeEntry& take);

}  // namespace mira::tables
