// How well bytes fit a record: by what its fields may hold, and by what the records before held at
// the same places.
#pragma once

#include <array>
#include <string_view>
#include <vector>

#include "mira.h"
#include "tables/column/column.h"

namespace mira::tables {

struct ShapeField {
    char type = 'C';
    u32 offset = 0, length = 0;
};

/// Where the fields of a record lie. stride is above length where records are padded.
struct Shape {
    u32 length = 1;
    u32 stride = 1;
    MemoFormat memos = MemoFormat::None;
    std::vector<ShapeField> fields{};

    void add(char type, u32 size);
};
Shape shapeOf(const DbfBase& base, MemoFormat memos);

constexpr u32 kNoMark = 1000;

/// What kind of character a byte is.
enum ByteClass : u8 { Zero, Blank, Digit, Upper, Lower, High, Sign, Point, Star, Mark, Control };
constexpr std::size_t kByteClasses = 11;
u8 classOf(char byte);

/// Whether a field refers to memos by a number in digits.
bool isReferenceText(const Shape& shape, const ShapeField& field);
/// Whether the bytes of a field may be a value of its type, as far as that can be told.
bool mayBe(const Shape& shape, const ShapeField& field, std::string_view bytes);

class Fit {
public:
    explicit Fit(const Shape& shape);

    /// Fields whose bytes are none of their type; kNoMark more when the deletion byte is none.
    u32 faults(std::string_view record) const;
    /// How much likelier the bytes are as a record here than as any others: a logarithm.
    double likelihood(std::string_view record) const;
    /// From now on bytes like these are likelier.
    void learn(std::string_view record);
    /// A zero byte is a deletion byte, too, as in tables of some programs.
    void allowZeroMark() { zeroMark_ = true; }
    /// Whether a zero byte at an offset is nothing unusual.
    bool zeroIsUsual(u32 offset) const;
    const Shape& shape() const { return shape_; }

private:
    using Weights = std::array<float, kByteClasses>;

    void addPrior(const ShapeField& field);

    Shape shape_;
    std::vector<Weights> weights_;  ///< per byte of the record
    std::vector<u32> telling_;      ///< offsets that are looked at: all of them in short records
    double learned_ = 0;            ///< records
    bool zeroMark_ = false;
};

}  // namespace mira::tables
