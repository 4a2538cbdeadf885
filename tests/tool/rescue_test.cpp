// Tables damaged in many ways, and what repair saves of them. Nothing may come out that the table
// did not hold there unless it is counted as doubtful, and what the damage has not touched is to be
// saved. With MIRA_DAMAGE=all the real tables of MIRA_CORPUS are damaged, and the shares are
// printed; with part of its name one damage alone. MIRA_DAMAGE_SEED gives other places.
#include "tables/rescue/rescue.h"

#include <strings.h>

#include <algorithm>
#include <cstdlib>
#include <functional>
#include <map>
#include <random>
#include <set>

#include "support.h"
#include "tables/open/open.h"
#include "tables/page/refusal.h"
#include "tables/value/plain.h"

namespace test {
namespace {

namespace fs = std::filesystem;
namespace tables = mira::tables;

/// What is saved at least of what lies outside the damage.
constexpr double kLeast = 0.99;

struct Row {
    std::string cells{};  ///< all but the memos
    std::vector<std::string> memos{};
    bool doubtful = false;
    std::set<std::size_t> openMemos{};  ///< doubtful or lost
};

bool isMemo(const tables::Column& column) {
    return column.kind == tables::Kind::Memo || column.kind == tables::Kind::Blob;
}

std::vector<Row> rowsOf(const std::string& path) {
    const auto table = tables::openTable(path, {.codePage = "CP1252"});
    tables::CellReader cells(*table);
    std::vector<Row> rows(table->base->Header.RecordCount);
    for (mira::u32 i = 0; i < rows.size(); ++i) {
        tables::readRecord(*table, i);
        rows[i].cells = tables::isDeleted(*table) ? "*" : " ";
        for (const auto& column : table->columns) {
            tables::Value value;
            tables::readCell(cells, column, value);
            std::string text;
            tables::putPlain(text, value);
            (isMemo(column) ? rows[i].memos.emplace_back() : rows[i].cells) +=
                (isMemo(column) ? "" : "|") + text;
        }
    }
    return rows;
}

/// A table and its memo file as bytes, and which of these a damage has touched.
struct Files {
    std::string table, memos;
    std::string tableName, memoName;  ///< file names
    std::set<mira::u32> blocks{};     ///< that its records refer to
    std::size_t header = 0, record = 1;
    std::vector<std::pair<std::size_t, std::size_t>> hit{};  ///< of the table
    bool memosHit = false;                                   ///< any of the memos
    bool like = false;  ///< fields are given by the sound table
};

Files filesOf(const fs::path& path) {
    Files files;
    files.table = readAll(path.string());
    files.tableName = path.filename().string();
    const auto table = tables::openTable(path.string(), {});
    files.header = table->base->Header.HeaderLength;
    files.record = table->base->Header.RecordLength;
    for (mira::u32 i = 0; i < table->base->Header.RecordCount; ++i) {
        tables::readRecord(*table, i);
        for (int field = 0; field < table->base->FieldCount; ++field) {
            mira::u32 block = 0, length = 0;
            if (GetMemoReference(table->base.get(), field, &block, &length) != 0)
                files.blocks.insert(block);
        }
    }
    const fs::path memos = tables::memoFileOf(*table);
    if (!memos.empty() && fs::exists(memos)) {
        files.memos = readAll(memos.string());
        files.memoName = memos.filename().string();
    }
    return files;
}

std::size_t descriptors(const Files& files) {
    return files.table[0] == '\x8C' || (files.table[0] == 4 && files.table[64] == 0) ? 68 : 32;
}

void setLe16(std::string& bytes, std::size_t at, unsigned value) {
    bytes[at] = static_cast<char>(value & 0xFF);
    bytes[at + 1] = static_cast<char>(value >> 8);
}

void change(Files& files, std::size_t at, std::size_t cut, const std::string& put) {
    files.table.replace(at, cut, put);
    files.hit.emplace_back(at, at + std::max<std::size_t>(cut, 1));
}

/// Adds to the length of the n-th field that has no fixed one; false when there is none.
bool stretch(Files& files, std::size_t n, int by) {
    const std::size_t first = descriptors(files), size = first == 68 ? 48 : 32;
    for (std::size_t at = first; at + size < files.header && files.table[at] != '\r'; at += size) {
        const char type = files.table[at + (size == 48 ? 32 : 11)];
        if (type != 'C' && type != 'N' && type != 'F') continue;
        if (n-- != 0) continue;
        char& length =
            files.table[at +
                        (size == 48 ? (files.table[at + 34] != 0 && type != 'N' ? 34 : 33) : 16)];
        length = static_cast<char>(length + by);
        return true;
    }
    return false;
}

struct Damage {
    std::string name;
    std::function<bool(Files&, const Files& other, std::mt19937&)>
        make;  ///< false: not for this table
};

std::vector<Damage> damages() {
    const auto header = [](std::size_t at, unsigned value) {
        return [=](Files& f, const Files&, std::mt19937&) {
            setLe16(f.table, at, value);
            return true;
        };
    };
    std::vector<Damage> all{
        {"sector of zeros",
         [](Files& f, const Files&, std::mt19937& random) {
             if (f.table.size() <= f.header + 2) return false;
             const std::size_t at = (f.header + random() % (f.table.size() - f.header)) / 512 * 512;
             const std::size_t end = std::min(at + 512, f.table.size());
             f.like = at < f.header;
             change(f, at, end - at, std::string(end - at, '\0'));
             return true;
         }},
        {"LF made CR LF",
         [](Files& f, const Files&, std::mt19937&) {
             for (std::string* bytes : {&f.table, &f.memos}) {
                 for (std::size_t at = 0; (at = bytes->find('\n', at)) != std::string::npos;
                      at += 2)
                     bytes->insert(at, 1, '\r');
             }
             return true;
         }},
        {"header length 0", header(8, 0)},
        {"header length 1", header(8, 1)},
        {"header length 65535", header(8, 65535)},
        {"header length 0, count 1",
         [](Files& f, const Files&, std::mt19937&) {
             setLe16(f.table, 8, 0);
             setLe16(f.table, 4, 1);
             return (f.table[0] & 7) != 4;  // level 7 may have properties before the records
         }},
        {"count 0", header(4, 0)},
        {"count too large", header(6, 9)},
        {"record length 0", header(10, 0)},
        {"record length wrong",
         [](Files& f, const Files&, std::mt19937&) {
             setLe16(f.table, 10, static_cast<unsigned>(f.record + 7));
             return true;
         }},
        {"a field length changed",
         [](Files& f, const Files&, std::mt19937& random) { return stretch(f, random() % 3, 3); }},
        {"two field lengths changed",
         [](Files& f, const Files&, std::mt19937&) {
             return stretch(f, 0, 2) && stretch(f, 1, 1);
         }},
        {"descriptors lost, --like",
         [](Files& f, const Files&, std::mt19937&) {
             std::fill(f.table.begin() + 32,
                       f.table.begin() + static_cast<std::ptrdiff_t>(f.header), '\0');
             return f.like = true;
         }},
        {"half of the file",
         [](Files& f, const Files&, std::mt19937&) {
             if (f.table.size() / 2 < f.header) return false;
             change(f, f.table.size() / 2, f.table.size(), "");
             f.hit.back().second += f.table.size();
             return true;
         }},
        {"memo header zero",
         [](Files& f, const Files&, std::mt19937&) {
             if (f.memos.size() < 512) return false;
             f.memos.replace(0, 512, 512, '\0');
             return true;
         }},
        {"memo header lost",
         [](Files& f, const Files&, std::mt19937&) {
             if (f.memos.size() < 512) return false;
             f.memos.erase(0, 512);
             return true;
         }},
        {"a memo nobody refers to",
         [](Files& f, const Files&, std::mt19937&) {
             if (fs::path(f.memoName).extension() != ".fpt" || f.blocks.empty()) return false;
             const auto unit = static_cast<std::size_t>(static_cast<mira::u8>(f.memos[6]) * 256 +
                                                        static_cast<mira::u8>(f.memos[7]));
             if (unit < 9) return false;
             f.memos.resize((f.memos.size() + unit - 1) / unit * unit);
             f.memos += std::string("\0\0\0\1\0\0\0\1x", 9) + std::string(unit - 9, '\0');
             return true;
         }},
        {"memo file of another table",
         [](Files& f, const Files& other, std::mt19937&) {
             f.memos = other.memos;
             f.memosHit = true;
             // Where memos begin at the same blocks nothing tells one file from the other.
             return !f.memoName.empty() && !f.memos.empty() && f.blocks != other.blocks;
         }},
        {"memo file cut",
         [](Files& f, const Files&, std::mt19937&) {
             f.memos.resize(f.memos.size() * 2 / 3);
             f.memosHit = true;
             return !f.memos.empty();
         }},
    };
    for (std::size_t tenth = 1; tenth < 10; ++tenth) {
        all.push_back({"a byte lost at a tenth", [tenth](Files& f, const Files&, std::mt19937&) {
                           change(f, f.table.size() * tenth / 10, 1, "");
                           return true;
                       }});
        all.push_back(
            {"a byte added at a tenth", [tenth](Files& f, const Files&, std::mt19937& random) {
                 const std::string byte(1, static_cast<char>(random()));
                 change(f, f.table.size() * tenth / 10, 0, byte);
                 return true;
             }});
    }
    return all;
}

/// What has come of damages of a kind.
struct Share {
    u64 tables = 0, refused = 0, outside = 0, saved = 0, sure = 0, memosOutside = 0, memosSaved = 0,
        doubtful = 0, wrong = 0, memosDoubtful = 0;
};

/// The records of the new table, with what was counted as doubtful.
std::vector<Row> repaired(const fs::path& table, const tables::Table* like, const fs::path& to) {
    tables::Damaged damaged = tables::examine(table.string(), like);
    tables::layTable(to.string(), damaged.layout.head);
    auto made = tables::openTable(to.string(), {.codePage = "CP1252", .writable = true});
    std::vector<tables::Spot> spots;
    tables::RescueHooks hooks;
    hooks.tell = [&](const tables::Spot& spot) { spots.push_back(spot); };
    const auto result =
        tables::rescue(damaged, *made, tables::memosOfDamaged(table.string(), *made), 0, hooks);
    std::vector<std::string> memoNames;
    for (const auto& column : made->columns) {
        if (isMemo(column)) memoNames.push_back(column.name);
    }
    made.reset();
    std::vector<Row> rows = rowsOf(to.string());
    EXPECT_EQ(rows.size(), result.saved);
    using Is = tables::Spot::Is;
    for (const tables::Spot& spot : spots) {
        const bool memo = spot.is == Is::MemoDoubtful || spot.is == Is::MemoLost;
        for (mira::u32 i = 0; i < spot.count && spot.is != Is::LeftOut; ++i) {
            if (spot.record + i > rows.size()) continue;
            Row& row = rows[spot.record - 1 + i];
            if (spot.is == Is::Doubtful || spot.is == Is::Value) row.doubtful = true;
            for (std::size_t n = 0; n < memoNames.size() && memo; ++n) {
                if (memoNames[n] == spot.field) row.openMemos.insert(n);
            }
        }
    }
    return rows;
}

bool agrees(const Row& got, const Row& wanted) {
    if (got.cells != wanted.cells || got.memos.size() != wanted.memos.size()) return false;
    for (std::size_t i = 0; i < got.memos.size(); ++i) {
        if (got.memos[i] != wanted.memos[i] && got.openMemos.count(i) == 0) return false;
    }
    return true;
}

void judge(const std::vector<Row>& wanted, const std::vector<Row>& got, const Files& files,
           Share& share) {
    std::size_t next = 0;
    for (const Row& row : got) {
        share.doubtful += row.doubtful ? 1U : 0U;
        share.memosDoubtful += row.openMemos.size();
        if (row.doubtful) continue;
        while (next < wanted.size() && !agrees(row, wanted[next])) ++next;
        if (next == wanted.size()) {
            ++share.wrong;
            next = 0;
            ADD_FAILURE() << "not in the table: " << row.cells;
        } else {
            ++next;
        }
    }
    std::map<std::string, int> saved, memos;
    for (const Row& row : got) {
        ++saved[row.cells];
        for (const std::string& memo : row.memos) ++memos[memo];
    }
    for (std::size_t i = 0; i < wanted.size(); ++i) {
        const std::size_t from = files.header + i * files.record, to = from + files.record;
        const bool hit = std::any_of(files.hit.begin(), files.hit.end(), [&](const auto& range) {
            return range.first < to && from < range.second;
        });
        if (hit) continue;
        ++share.outside;
        share.saved += saved[wanted[i].cells]-- > 0 ? 1U : 0U;
        for (const std::string& memo : wanted[i].memos) {
            // A reference into the header has no memo.
            if (memo.empty() || memo == "base64:" || files.memosHit) continue;
            ++share.memosOutside;
            share.memosSaved += memos[memo]-- > 0 ? 1U : 0U;
        }
    }
}

class Bench {
public:
    Bench(std::vector<fs::path> paths, const char* only, const char* seed)
        : seed_(seed != nullptr ? static_cast<unsigned>(std::atoi(seed)) : 0),
          only_(only != nullptr && std::string_view(only) != "all" ? only : ""),
          paths_(std::move(paths)) {}
    std::map<std::string, Share> shares{};

    void run() {
        for (std::size_t i = 0; i < paths_.size(); ++i) {
            const Files files = filesOf(paths_[i]);
            const std::vector<Row> rows = rowsOf(paths_[i].string());
            check("nothing", files, rows, paths_[i]);
            for (const Damage& damage : damages()) {
                if (!only_.empty() && damage.name.find(only_) == std::string::npos) continue;
                Files damaged = files;
                std::mt19937 random(seed_ + static_cast<unsigned>(i));
                if (damage.make(damaged, otherThan(i, files), random))
                    check(damage.name, damaged, rows, paths_[i]);
            }
        }
    }

private:
    /// Another table whose memo file has the same extension.
    Files otherThan(std::size_t i, const Files& files) {
        for (std::size_t k = 1; k < paths_.size(); ++k) {
            const Files other = filesOf(paths_[(i + k) % paths_.size()]);
            const auto kind = [](const Files& f) {
                return fs::path(f.memoName).extension().string();
            };
            if (!other.memoName.empty() &&
                strcasecmp(kind(other).c_str(), kind(files).c_str()) == 0 &&
                other.memos != files.memos)
                return other;
        }
        return {};
    }

    void check(const std::string& name, const Files& files, const std::vector<Row>& rows,
               const fs::path& sound) {
        SCOPED_TRACE(sound.string() + ": " + name);
        const TempDir dir;
        const fs::path table = dir.file(files.tableName);
        writeAt("wb", table.string(), files.table);
        if (!files.memoName.empty()) writeAt("wb", dir.file(files.memoName), files.memos);
        const auto like =
            files.like ? tables::openTable(sound.string(), {.codePage = "CP1252"}) : nullptr;
        Share& share = shares[name];
        Share mine;
        ++share.tables;
        try {
            const auto got =
                repaired(table, like.get(), dir.file("new" + table.extension().string()));
            judge(rows, got, files, mine);
        } catch (const tables::Refusal&) {
            ++share.refused;
            judge(rows, {}, files, mine);
        }
        share.outside += mine.outside;
        share.saved += mine.saved;
        share.memosOutside += mine.memosOutside;
        share.memosSaved += mine.memosSaved;
        share.doubtful += mine.doubtful;
        share.wrong += mine.wrong;
        share.memosDoubtful += mine.memosDoubtful;
    }

    const unsigned seed_;
    const std::string only_;
    std::vector<fs::path> paths_;
};

std::vector<fs::path> tablesOf(const fs::path& folder) {
    std::vector<fs::path> paths;
    for (const auto& entry : fs::recursive_directory_iterator(folder)) {
        const std::string extension = entry.path().extension().string();
        if (strcasecmp(extension.c_str(), ".dbf") != 0 &&
            strcasecmp(extension.c_str(), ".dbc") != 0)
            continue;
        try {
            const auto table = tables::openTable(entry.path().string(), {});
            if (!table->columns.empty()) paths.push_back(entry.path());
        } catch (const tables::Refusal&) {
        }
    }
    std::sort(paths.begin(), paths.end());
    return paths;
}

TEST(Rescue, SavesWhatTheDamageHasNotTouched) {
    const char* const whole = std::getenv("MIRA_DAMAGE");
    const char* const corpus = std::getenv("MIRA_CORPUS");
    std::vector<fs::path> paths = tablesOf(MIRA_SAMPLES_DIR);
    if (whole != nullptr && corpus != nullptr) paths = tablesOf(corpus);
    Bench bench(paths, whole, std::getenv("MIRA_DAMAGE_SEED"));
    bench.run();
    for (const auto& [name, share] : bench.shares) {
        if (whole != nullptr) {
            std::printf(
                "%-28s %4lu tables, %2lu refused; %5lu of %5lu records, %4lu doubtful, %lu wrong; "
                "%4lu of %4lu memos, %4lu doubtful or lost\n",
                name.c_str(), share.tables, share.refused, share.saved, share.outside,
                share.doubtful, share.wrong, share.memosSaved, share.memosOutside,
                share.memosDoubtful);
        }
        EXPECT_GE(static_cast<double>(share.saved), kLeast * static_cast<double>(share.outside))
            << name;
        EXPECT_GE(static_cast<double>(share.memosSaved),
                  kLeast * static_cast<double>(share.memosOutside))
            << name;
    }
}

}  // namespace
}  // namespace test
