#include "arguments.h"

#include "tables/page/refusal.h"

namespace mira::sql {
namespace {

/// Without the quotes of SQL around it, if it has some: 'it''s', "a", [a], `a`.
std::string unquoted(std::string_view text) {
    text = tables::trimmed(text);
    constexpr std::string_view kOpening = "'\"`[";
    if (text.size() < 2 || kOpening.find(text.front()) == std::string_view::npos) {
        return std::string(text);
    }
    const char end = text.front() == '[' ? ']' : text.front();
    if (text.back() != end) return std::string(text);
    std::string inner;
    text = text.substr(1, text.size() - 2);
    for (std::size_t i = 0; i < text.size(); ++i) {
        inner += text[i];
        if (text[i] == end && i + 1 < text.size() && text[i + 1] == end) ++i;
    }
    return inner;
}

bool isOn(const std::string& path, std::string_view name, const std::string& value) {
    for (const char* yes : {"1", "yes", "true", "on"}) {
        if (tables::sameText(value, yes)) return true;
    }
    for (const char* no : {"0", "no", "false", "off"}) {
        if (tables::sameText(value, no)) return false;
    }
    tables::refuse(path, ": ", name, " is 1 or 0, not \"", value, "\"");
}

tables::Deleted deletedOption(const std::string& path, const std::string& value) {
    for (const auto& [word, deleted] : tables::kDeletedWords) {
        if (tables::sameText(value, word)) return deleted;
    }
    tables::refuse(path, ": deleted is skip, include or only, not \"", value, "\"");
}

void readOption(Arguments& arguments, std::string_view text) {
    const std::size_t equals = text.find('=');
    const std::string name = tables::foldCase(tables::trimmed(text.substr(0, equals)));
    const std::string value =
        equals == std::string_view::npos ? std::string("1") : unquoted(text.substr(equals + 1));
    const std::string& path = arguments.path;
    if (name == "code_page") {
        arguments.table.codePage = value;
    } else if (name == "deleted") {
        arguments.deleted = deletedOption(path, value);
    } else if (name == "writable") {
        arguments.table.writable = isOn(path, name, value);
    } else if (name == "reindex") {
        arguments.table.reindex = isOn(path, name, value);
    } else if (name == "exact") {
        arguments.table.exact = isOn(path, name, value);
    } else if (name == "long_names") {
        arguments.table.longNames = isOn(path, name, value);
    } else if (name == "as_text") {
        arguments.table.asText = tables::splitList(value);
    } else {
        tables::refuse(path, ": there is no option \"", name,
                       "\"; those there are: code_page, deleted, writable, reindex, exact, "
                       "long_names, as_text");
    }
}

}  // namespace

Arguments readArguments(int count, const char* const* texts) {
    Arguments arguments;
    if (count > 0) arguments.path = unquoted(texts[0]);
    if (arguments.path.empty()) tables::refuse("USING mira('PATH') needs the path of a table");
    for (int i = 1; i < count; ++i) readOption(arguments, texts[i]);
    return arguments;
}

}  // namespace mira::sql
