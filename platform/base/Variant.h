#pragma once

// The tagged value that crosses most interfaces: what a parameter, a channel or an OPC item holds.
// Sixteen bytes; text and other large contents are shared, never copied, so that handing a value on is cheap.
// Empty (nothing at all) and Null (no trusted value) are different things.

#include <atomic>
#include <concepts>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "base/Date.h"
#include "base/Decimal.h"

namespace quelm {

// The numbers are those of COM's VARTYPE.
enum class VariantKind : std::uint16_t {
    Empty = 0,
    Null = 1,
    Int16 = 2,
    Int32 = 3,
    Single = 4,
    Double = 5,
    Currency = 6,  // 64-bit integer, scaled by 10,000
    Date = 7,
    Text = 8,
    Object = 9,
    Error = 10,  // 32-bit status code
    Boolean = 11,
    Decimal = 14,
    Byte = 17,
    TextArray = 0x2008,
};

struct Currency {
    std::int64_t scaled = 0;  // value times 10,000
    bool operator==(const Currency&) const = default;
};

struct ErrorCode {
    std::int32_t code = 0;
    bool operator==(const ErrorCode&) const = default;
};

// Base of what a Variant of kind Object refers to.
class VariantObject {
 public:
    virtual ~VariantObject() = default;
};

class Variant {
 public:
    Variant() noexcept { std::memset(&data_, 0, sizeof data_); }
    static Variant null() noexcept {
        Variant v;
        v.data_.kind = VariantKind::Null;
        return v;
    }

    // One constructor per kind, for exactly its type: no silent conversion decides what a value is.
    template <class T>
    requires std::same_as<T, bool> Variant(T value)
    noexcept : Variant(VariantKind::Boolean) { data_.body.integer = value ? -1 : 0; }
    template <class T>
    requires std::same_as<T, std::uint8_t> Variant(T value)
    noexcept : Variant(VariantKind::Byte) { data_.body.integer = value; }
    template <class T>
    requires std::same_as<T, std::int16_t> Variant(T value)
    noexcept : Variant(VariantKind::Int16) { data_.body.integer = value; }
    template <class T>
    requires std::same_as<T, std::int32_t> Variant(T value)
    noexcept : Variant(VariantKind::Int32) { data_.body.integer = value; }
    template <class T>
    requires std::same_as<T, float> Variant(T value)
    noexcept : Variant(VariantKind::Single) { data_.body.number = value; }
    template <class T>
    requires std::same_as<T, double> Variant(T value)
    noexcept : Variant(VariantKind::Double) { data_.body.number = value; }
    Variant(Date value) noexcept : Variant(VariantKind::Date) { data_.body.number = value.days; }
    Variant(Currency value) noexcept : Variant(VariantKind::Currency) { data_.body.integer = value.scaled; }
    Variant(ErrorCode value) noexcept : Variant(VariantKind::Error) { data_.body.integer = value.code; }
    Variant(const Decimal& value) noexcept : Variant(VariantKind::Decimal) {
        data_.scale = value.scale;
        data_.negative = value.negative;
        data_.high = value.high;
        data_.body.integer = static_cast<std::int64_t>(value.low);
    }
    Variant(std::string text) : Variant(VariantKind::Text) { data_.body.shared = new TextBody(std::move(text)); }
    Variant(std::string_view text) : Variant(std::string(text)) {}
    Variant(const char* text) : Variant(std::string(text)) {}
    Variant(std::vector<std::string> texts) : Variant(VariantKind::TextArray) {
        data_.body.shared = new ArrayBody(std::move(texts));
    }
    // A null pointer is an object variable that is set to nothing.
    Variant(std::shared_ptr<VariantObject> object) : Variant(VariantKind::Object) {
        data_.body.shared = new ObjectBody(std::move(object));
    }

    Variant(const Variant& other) noexcept : data_(other.data_) {
        if (isShared()) {
            data_.body.shared->references.fetch_add(1, std::memory_order_relaxed);
        }
    }
    Variant(Variant&& other) noexcept : data_(other.data_) { other.data_.kind = VariantKind::Empty; }
    Variant& operator=(const Variant& other) noexcept {
        if (other.isShared()) {
            other.data_.body.shared->references.fetch_add(1, std::memory_order_relaxed);
        }
        release();
        data_ = other.data_;
        return *this;
    }
    Variant& operator=(Variant&& other) noexcept {
        std::swap(data_, other.data_);
        return *this;
    }
    ~Variant() { release(); }

    VariantKind kind() const noexcept { return data_.kind; }
    bool isEmpty() const noexcept { return kind() == VariantKind::Empty; }
    bool isNull() const noexcept { return kind() == VariantKind::Null; }

    // The contents, by kind; each is valid only for a Variant of its own kind.
    bool boolean() const noexcept { return data_.body.integer != 0; }
    std::uint8_t byte() const noexcept { return static_cast<std::uint8_t>(data_.body.integer); }
    std::int16_t int16() const noexcept { return static_cast<std::int16_t>(data_.body.integer); }
    std::int32_t int32() const noexcept { return static_cast<std::int32_t>(data_.body.integer); }
    float single() const noexcept { return static_cast<float>(data_.body.number); }
    double real() const noexcept { return data_.body.number; }
    Date date() const noexcept { return Date{data_.body.number}; }
    Currency currency() const noexcept { return Currency{data_.body.integer}; }
    ErrorCode error() const noexcept { return ErrorCode{static_cast<std::int32_t>(data_.body.integer)}; }
    Decimal decimal() const noexcept {
        return Decimal{static_cast<std::uint64_t>(data_.body.integer), data_.high, data_.scale, data_.negative};
    }
    const std::string& text() const noexcept { return static_cast<const TextBody*>(data_.body.shared)->text; }
    const std::vector<std::string>& texts() const noexcept {
        return static_cast<const ArrayBody*>(data_.body.shared)->texts;
    }
    const std::shared_ptr<VariantObject>& object() const noexcept {
        return static_cast<const ObjectBody*>(data_.body.shared)->object;
    }

    // Same kind and same contents (a test of identity, not of numeric equality; NaN equals itself).
    bool operator==(const Variant& other) const noexcept;

 private:
    // Contents that are too large for the value itself. They never change; a text that the plant has read is a
    // client's value at the same time, so that both threads count.
    struct SharedBody {
        virtual ~SharedBody() = default;
        std::atomic<std::uint32_t> references = 1;
    };
    struct TextBody final : SharedBody {
        explicit TextBody(std::string value) : text(std::move(value)) {}
        std::string text;
    };
    struct ArrayBody final : SharedBody {
        explicit ArrayBody(std::vector<std::string> value) : texts(std::move(value)) {}
        std::vector<std::string> texts;
    };
    struct ObjectBody final : SharedBody {
        explicit ObjectBody(std::shared_ptr<VariantObject> value) : object(std::move(value)) {}
        std::shared_ptr<VariantObject> object;
    };

    struct Data {
        VariantKind kind;
        std::uint8_t scale;
        bool negative;
        std::uint32_t high;
        union {
            std::int64_t integer;
            double number;
            SharedBody* shared;
        } body;
    };

    explicit Variant(VariantKind kind) noexcept : Variant() { data_.kind = kind; }

    bool isShared() const noexcept {
        return data_.kind == VariantKind::Text || data_.kind == VariantKind::Object ||
               data_.kind == VariantKind::TextArray;
    }
    void release() noexcept {
        if (isShared() && data_.body.shared->references.fetch_sub(1, std::memory_order_acq_rel) == 1) {
            delete data_.body.shared;
        }
    }

    Data data_;
};

static_assert(sizeof(Variant) == 16);

}  // namespace quelm
