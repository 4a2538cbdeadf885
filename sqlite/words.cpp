#include "words.h"

#include <algorithm>

#include "tables/page/text.h"

namespace mira::sql {
namespace {

/// Takes a quoted word off the front; its quotes are doubled in it.
std::string takeQuoted(std::string_view* rest) {
    const char end = rest->front() == '[' ? ']' : rest->front();
    std::string word;
    rest->remove_prefix(1);
    while (!rest->empty()) {
        const char c = rest->front();
        rest->remove_prefix(1);
        if (c == end) {
            if (c == ']' || rest->empty() || rest->front() != end) break;
            rest->remove_prefix(1);
        }
        word += c;
    }
    return word;
}

void skipPast(std::string_view* rest, std::string_view end) {
    const std::size_t at = rest->find(end, 2);
    rest->remove_prefix(at == std::string_view::npos ? rest->size() : at + end.size());
}

}  // namespace

std::vector<std::string> sqlWords(std::string_view sql) {
    std::vector<std::string> words;
    while (!sql.empty()) {
        if (sql.starts_with("--")) {
            skipPast(&sql, "\n");
        } else if (sql.starts_with("/*")) {
            skipPast(&sql, "*/");
        } else if (std::string_view("'\"`[").find(sql.front()) != std::string_view::npos) {
            words.push_back(takeQuoted(&sql));
        } else if (tables::isWordByte(sql.front())) {
            const auto end = static_cast<std::size_t>(
                std::find_if_not(sql.begin(), sql.end(), tables::isWordByte) - sql.begin());
            words.emplace_back(sql.substr(0, end));
            sql.remove_prefix(end);
        } else {
            sql.remove_prefix(1);
        }
    }
    return words;
}

bool hasWord(const std::vector<std::string>& words, const std::vector<std::string>& keywords) {
    return std::any_of(words.begin(), words.end(), [&](const std::string& word) {
        return std::find(keywords.begin(), keywords.end(), tables::upperAscii(word)) !=
               keywords.end();
    });
}

}  // namespace mira::sql
