// SQL over the tables that lie in the page's folder.
#pragma once

#include <string>
#include <vector>

#include "tables/value/value.h"

namespace mira::page {

/// The rows of an answer, each value stored once, whatever is made of it later.
class StoredRows {
public:
    void clear() { *this = {}; }
    void beginRow();
    void add(const tables::Value& value);

    std::size_t count() const { return rows_.size(); }
    std::size_t bytes() const { return bytes_; }
    /// Calls take(column, value) for the values of a row.
    template <typename Take>
    void each(std::size_t row, std::size_t columns, Take take) const {
        const char* at = pieces_[rows_[row].piece].data() + rows_[row].at;
        for (std::size_t i = 0; i < columns; ++i) take(i, next(&at));
    }

private:
    struct Place {
        u32 piece, at;
    };
    static tables::Value next(const char** at);

    std::vector<std::string> pieces_{};  ///< a row lies in one
    std::vector<Place> rows_{};
    std::size_t bytes_ = 0;
};

/// The answer of the last statement that has one.
struct Answer {
    struct Heading {
        std::string name;
        bool mayBeNull;
        bool numbers = true;  ///< whether it holds nothing else
    };
    std::vector<Heading> columns{};
    StoredRows rows{};
    bool cut = false;  ///< there were more
    std::vector<std::string> notes{};
};

struct SqlTable {
    std::string path;
    std::string codePage;  ///< empty: what the table says
};

/// Runs one statement or several. Throws a Refusal.
Answer answerOf(const std::string& sql, const std::vector<SqlTable>& tables);

}  // namespace mira::page
