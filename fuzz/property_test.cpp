// Every property over its corpus, and over a few thousand inputs changed from there, the same ones
// in every run.
#include "property.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <random>

namespace test {
namespace {

constexpr int kChanged = 3000;
constexpr std::string_view kTokens = "(&|)=><~^+-*/'\" .,0123456789\0\1\xFF";

std::vector<std::string> corpusOf(const char* surface) {
    std::map<std::string, std::string> files;
    for (const auto& entry :
         std::filesystem::directory_iterator(MIRA_CORPUS_DIR + "/"s + surface)) {
        std::ifstream in(entry.path(), std::ios::binary);
        files[entry.path().string()] = std::string(std::istreambuf_iterator<char>(in), {});
    }
    std::vector<std::string> corpus;
    for (const auto& [path, bytes] : files) corpus.push_back(bytes);
    return corpus;
}

/// Real tables as inputs of the table property, to be read and edited; those that are not too
/// large.
std::vector<std::string> realTables(std::size_t limit) {
    std::vector<std::string> inputs;
    const char* const folder = std::getenv("MIRA_CORPUS");
    if (folder == nullptr) return inputs;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(folder)) {
        if (!entry.is_regular_file() || entry.file_size() + 6 > limit) continue;
        std::ifstream in(entry.path(), std::ios::binary);
        inputs.push_back("\0\4\0\0\0\0"s + std::string(std::istreambuf_iterator<char>(in), {}));
    }
    std::sort(inputs.begin(), inputs.end());
    return inputs;
}

bool takesTables(const Surface* surface) {
    const std::string_view name = surface->name;
    return name == "table" || name == "arrow" || name == "repair";
}

/// Bytes set, put in and taken out, and the middle or the end replaced by those of another input.
std::string changed(const std::vector<std::string>& corpus, std::mt19937& random) {
    const auto pick = [&](std::size_t count) { return count == 0 ? 0 : random() % count; };
    std::string input = corpus[pick(corpus.size())];
    for (std::size_t left = 1 + pick(4); left > 0; --left) {
        const std::string& other = corpus[pick(corpus.size())];
        const std::size_t at = pick(input.size() + 1), from = pick(other.size() + 1);
        const bool token = pick(2) == 0;
        const char byte = token ? kTokens[pick(kTokens.size())] : static_cast<char>(random());
        const std::size_t kind = pick(4), cut = pick(kind == 0 ? 2 : 5);
        if (kind < 2) input.replace(at, cut, 1, byte);
        if (kind == 2) input.replace(at, cut, other, from, pick(12));
        if (kind == 3) input.replace(at, input.npos, other, from);
    }
    return input;
}

class Property : public testing::TestWithParam<const Surface*> {
protected:
    void run(const std::string& bytes) {
        if (bytes.size() > GetParam()->limit) return;
        const std::vector<u8> exact(bytes.begin(), bytes.end());
        Input input(exact.data(), exact.size());
        try {
            GetParam()->check(input);
        } catch (const std::exception& error) {
            FAIL() << error.what() << "\nthe input: " << visible(bytes);
        }
    }
};

TEST_P(Property, Holds) {
    std::mt19937 random(1);
    std::vector<std::string> corpus = corpusOf(GetParam()->name);
    ASSERT_FALSE(corpus.empty());
    if (takesTables(GetParam()))
        std::ranges::move(realTables(GetParam()->limit), std::back_inserter(corpus));
    for (const std::string& bytes : corpus) run(bytes);
    for (int i = 0; i < kChanged && !HasFailure(); ++i) run(changed(corpus, random));
}

#ifndef MIRA_PROPERTIES
#define MIRA_PROPERTIES &kArithmetic, &kStrings, &kFilter, &kValues, &kTable, &kSession
#endif

INSTANTIATE_TEST_SUITE_P(Of, Property, testing::Values(MIRA_PROPERTIES),
                         [](const auto& instance) { return std::string(instance.param->name); });

}  // namespace
}  // namespace test
