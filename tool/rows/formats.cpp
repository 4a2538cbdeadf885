// The formats of rows.
#include <algorithm>
#include <iterator>

#include "rows/writer.h"
#include "tables/page/text.h"

namespace mira::tool {

using MakeWriter = std::unique_ptr<RowWriter>(Output&, const WriterOptions&);
MakeWriter gridWriter, csvWriter, tsvWriter, jsonWriter, jsonLinesWriter, postgresWriter,
    mysqlWriter;

namespace {

// A format is a row, with its writer declared above.
constexpr Format kFormats[] = {
    {"table", "", 0, gridWriter},
    {"csv", ".csv", kTakesLines | kTakesDelimiter | kRowsApart, csvWriter},
    {"tsv", ".tsv", kTakesLines | kRowsApart, tsvWriter},
    {"json", ".json", 0, jsonWriter},
    {"jsonl", ".jsonl .ndjson", kRowsApart, jsonLinesWriter},
    {"sqlite", ".db .sqlite .sqlite3", kTakesTables | kTakesDatabase, nullptr},
    {"postgres", ".sql", kTakesTables, postgresWriter},
    {"mysql", ".sql", kTakesTables, mysqlWriter},
};

template <typename Wanted>
FormatWords wordsOf(Wanted wanted) {
    FormatWords words;
    for (const Format& format : kFormats) {
        if (wanted(format)) words.emplace_back(format.name, &format);
    }
    return words;
}

}  // namespace

const FormatWords& fileFormats() {
    static const FormatWords words = wordsOf([](const Format& f) { return *f.extensions != 0; });
    return words;
}

const FormatWords& shownFormats() {
    static const FormatWords words = wordsOf([](const Format& f) { return f.make != nullptr; });
    return words;
}

const FormatWords& answerFormats() {
    static const FormatWords words = wordsOf([](const Format&) { return true; });
    return words;
}

const Format* formatOfExtension(const std::string& extension) {
    const auto has = [&](const Format& format) {
        const std::string all = textOf(format.extensions, ' ');
        return !extension.empty() && all.find(foldCase(extension) + ' ') != std::string::npos;
    };
    const auto* const found = std::find_if(std::begin(kFormats), std::end(kFormats), has);
    if (found == std::end(kFormats)) return nullptr;
    return std::none_of(found + 1, std::end(kFormats), has) ? found : nullptr;
}

std::string extensionOf(const Format& format) {
    const std::string_view all = format.extensions;
    return std::string(all.substr(0, all.find(' ')));
}

std::string namesOf(const FormatWords& formats) {
    std::vector<std::string> names;
    for (const auto& [name, format] : formats) names.emplace_back(name);
    const std::string last = names.back();
    names.pop_back();
    return textOf(joined(names), " or ", last);
}

}  // namespace mira::tool
