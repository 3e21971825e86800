#pragma once

// One record of the configuration class Q5OPCDEF: the definition of one OPC item, as read from the database.

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "base/Conversion.h"
#include "base/RuntimeError.h"
#include "base/Variant.h"

namespace quelm {

class OPCDef {
 public:
    // The raw columns. TagType and Tagname decide where a definition goes and how it is named, so an unusable one
    // reads as 0 or "" and costs only its own item; every other property raises 94 for NULL and 13 for a value of
    // another type when it is asked for.
    struct Columns {
        Variant Tagname, ID, TagType, DataType, Write, NullValue, DownIsValid, UseSubstatus, RefreshRate;
    };
    explicit OPCDef(Columns columns) : columns_(std::move(columns)) {}

    std::string Tagname() const;
    std::string ID() const;
    std::int32_t TagType() const;
    std::int32_t DataType() const;
    bool Write() const;
    const Variant& NullValue() const { return columns_.NullValue; }
    bool DownIsValid() const;
    bool UseSubstatus() const;
    std::int32_t RefreshRate() const;

 private:
    Columns columns_;
};

using OPCDefCollection = std::vector<OPCDef>;

}  // namespace quelm
