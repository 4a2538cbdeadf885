#include "tables/rescue/fit.h"

#include <algorithm>
#include <cmath>

#include "tables/page/bytes.h"

namespace mira::tables {
namespace {

constexpr std::size_t kTellingMost = 384;
constexpr float kPriorRecords = 4;  // that what a type tells counts for

constexpr std::array<u8, 256> kClassOf = [] {
    std::array<u8, 256> classes{};
    for (unsigned c = 0; c < 256; ++c) {
        u8 is = Mark;
        if (c < 0x20 || c == 0x7F) is = Control;
        if (c == 0) is = Zero;
        if (c == ' ') is = Blank;
        if (c >= '0' && c <= '9') is = Digit;
        if (c >= 'A' && c <= 'Z') is = Upper;
        if (c >= 'a' && c <= 'z') is = Lower;
        if (c >= 0x80) is = High;
        if (c == '+' || c == '-') is = Sign;
        if (c == '.' || c == ',') is = Point;
        if (c == '*') is = Star;
        classes[c] = is;
    }
    return classes;
}();

using Row = std::array<float, kByteClasses>;
// Shares of the classes above, in their order, before any record is known.
constexpr Row kMarkRow{.002F,   .9F,     .00001F, .00001F, .00001F, .00001F,
                       .00001F, .00001F, .1F,     .00001F, .00001F};
constexpr Row kTextFirst{.03F, .1F, .15F, .4F, .15F, .15F, .005F, .005F, .005F, .02F, .001F};
constexpr Row kTextInner{.03F, .45F, .1F, .15F, .2F, .1F, .01F, .02F, .005F, .03F, .001F};
constexpr Row kTextLast{.05F, .8F, .04F, .05F, .05F, .03F, .001F, .005F, .001F, .01F, .001F};
constexpr Row kNumberFirst{.02F, .65F, .25F, .0001F, .0001F, .0001F,
                           .04F, .02F, .02F, .0001F, .0001F};
constexpr Row kNumberInner{.02F, .4F, .5F, .001F, .001F, .0001F, .02F, .08F, .02F, .0001F, .0001F};
constexpr Row kNumberLast{.02F,   .2F,  .75F, .0001F, .0001F, .0001F,
                          .0001F, .01F, .02F, .0001F, .0001F};
constexpr Row kDateRow{.01F,   .2F,    .8F,    .0001F, .0001F, .0001F,
                       .0005F, .0005F, .0001F, .0005F, .0001F};
constexpr Row kLogicalRow{.02F, .2F, .0001F, .6F, .1F, .0001F, .0001F, .0001F, .0001F, .1F, .0001F};
constexpr Row kBinaryRow{.4F, .06F, .06F, .06F, .06F, .14F, .03F, .03F, .03F, .06F, .14F};

// The same for any bytes of any table.
constexpr Row kAny{.08F, .4F, .2F, .08F, .08F, .05F, .01F, .02F, .005F, .04F, .035F};

bool isBinary(const Shape& shape, const ShapeField& field) {
    constexpr std::string_view kText = "CVNFDL";
    if (kText.find(field.type) != std::string_view::npos) return false;
    return !isReferenceText(shape, field) && !(field.type == 'T' && field.length == 14);
}

bool isOf(std::string_view bytes, std::string_view letters) {
    return bytes.find_first_not_of(letters) == std::string_view::npos;
}

}  // namespace

u8 classOf(char byte) { return kClassOf[static_cast<u8>(byte)]; }

bool isReferenceText(const Shape& shape, const ShapeField& field) {
    constexpr std::string_view kMemos = "MGBWP";
    return field.length == 10 && kMemos.find(field.type) != std::string_view::npos &&
           shape.memos != MemoFormat::Smt;
}

bool mayBe(const Shape& shape, const ShapeField& field, std::string_view bytes) {
    constexpr std::string_view kNumber(" 0123456789+-.,eE*\0", 19);
    constexpr std::string_view kDate(" 0123456789\0", 12);
    constexpr std::string_view kOtherDate(" 0123456789./-:\0", 16);
    constexpr std::string_view kLogical("TtYyFfNn ?\0", 11);
    if (isReferenceText(shape, field)) return isOf(bytes, kDate);
    const char type = field.type;
    if (type == 'N' || type == 'F') return isOf(bytes, kNumber);
    if (type == 'D') return isOf(bytes, field.length == 8 ? kDate : kOtherDate);
    if (type == 'L') return isOf(bytes.substr(0, 1), kLogical);
    if (type != 'T') return true;
    if (bytes.size() != 8) return isOf(bytes, kOtherDate);
    const auto day = loadLe<i32>(bytes.data()), part = loadLe<i32>(bytes.data() + 4);
    const bool moment = day >= 1721060 && day <= 5373484 && part >= 0 && part < 86400000;
    return moment || isOf(bytes, {"\0", 1}) || isOf(bytes, " ");
}

void Shape::add(char type, u32 size) {
    fields.push_back({type, length, size});
    length += size;
    stride = length;
}

Shape shapeOf(const DbfBase& base, MemoFormat memos) {
    Shape shape;
    for (u32 i = 0; i < base.FieldCount; ++i) {
        const DbfField& field = base.Fields[i];
        const u32 high = field.Type == 'C' ? field.Decimals * 256U : 0;
        shape.add(field.Type, field.Length + high);
    }
    shape.stride = shape.length = base.Header.RecordLength;
    shape.memos = memos;
    return shape;
}

Fit::Fit(const Shape& shape) : shape_(shape), weights_(shape.length, kMarkRow) {
    for (const ShapeField& field : shape_.fields) addPrior(field);
    for (Weights& weights : weights_) {
        for (float& weight : weights) weight *= kPriorRecords;
    }
    std::vector<u32> edges{0};
    for (const ShapeField& field : shape_.fields) {
        edges.push_back(field.offset);
        if (field.length != 0) edges.push_back(field.offset + field.length - 1);
    }
    const std::size_t step = shape.length / kTellingMost + 1;
    for (u32 i = 0; i < shape.length; i += static_cast<u32>(step)) telling_.push_back(i);
    if (step > 1) telling_.insert(telling_.end(), edges.begin(), edges.end());
    std::sort(telling_.begin(), telling_.end());
    telling_.erase(std::unique(telling_.begin(), telling_.end()), telling_.end());
    std::erase_if(telling_, [&](u32 offset) { return offset >= shape.length; });
}

void Fit::addPrior(const ShapeField& field) {
    const bool number = field.type == 'N' || field.type == 'F' || isReferenceText(shape_, field);
    for (u32 i = 0; i < field.length && field.offset + i < weights_.size(); ++i) {
        const bool first = i == 0, last = i + 1 == field.length;
        const Row* row = first ? &kTextFirst : last ? &kTextLast : &kTextInner;
        if (number) row = last ? &kNumberLast : first ? &kNumberFirst : &kNumberInner;
        if (field.type == 'D' || (field.type == 'T' && field.length == 14)) row = &kDateRow;
        if (field.type == 'L') row = &kLogicalRow;
        if (isBinary(shape_, field)) row = &kBinaryRow;
        weights_[field.offset + i] = *row;
    }
}

u32 Fit::faults(std::string_view record) const {
    if (record.empty()) return kNoMark;
    const char mark = record[0];
    const bool marked = mark == ' ' || mark == '*' || (zeroMark_ && mark == 0);
    u32 faults = marked ? 0 : kNoMark;
    for (const ShapeField& field : shape_.fields) {
        if (field.offset + field.length > record.size()) continue;
        if (!mayBe(shape_, field, record.substr(field.offset, field.length))) ++faults;
    }
    return faults;
}

double Fit::likelihood(std::string_view record) const {
    double sum = 0;
    for (const u32 offset : telling_) {
        if (offset >= record.size()) break;
        const Weights& weights = weights_[offset];
        const u8 is = classOf(record[offset]);
        sum += std::log(weights[is] / ((kPriorRecords + learned_) * kAny[is]));
    }
    return sum;
}

void Fit::learn(std::string_view record) {
    const std::size_t size = std::min<std::size_t>(record.size(), weights_.size());
    for (std::size_t i = 0; i < size; ++i) {
        weights_[i][classOf(record[i])] += 1;
    }
    learned_ += 1;
}

bool Fit::zeroIsUsual(u32 offset) const {
    if (offset >= weights_.size()) return true;
    return weights_[offset][Zero] / (kPriorRecords + learned_) >= .25;
}

}  // namespace mira::tables
