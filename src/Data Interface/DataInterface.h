#pragma once

// One site's data interface over the configuration reader: parameter definitions and settings.

#include <string>
#include <string_view>
#include <vector>

#include "DB Interface Library/IDBIL.h"
#include "Data Interface/IDataInterface.h"
#include "base/IntIndex.h"

namespace quelm {

class DataInterface final : public IDataInterface {
 public:
    // reader must outlive this object.
    DataInterface(IConfigurationReader& reader, std::string_view strSiteID) : reader_(reader), strSiteID_(strSiteID) {}

    void OnMessage(MessageHandler handler) override { message_ = std::move(handler); }
    // A failed load leaves nothing loaded.
    bool Load(std::int32_t lngDAHSID, bool blnDefinitions, bool blnReserved) override;
    void TearDown() override;
    const IPIDDefinitions& PIDDefinitions() const override { return definitions_; }
    std::int32_t FirstDayOfWeek() const override { return settings_.FirstDayOfWeek; }

 private:
    class Definitions final : public IPIDDefinitions {
     public:
        // Of two definitions of a PID the first counts.
        void take(std::vector<PIDDefinition> definitions);
        bool IsDefined(std::int32_t lngPID) const override;
        const std::string& IntervalType(std::int32_t lngPID, bool blnUse) const override;
        const std::string& Name(std::int32_t lngPID) const override;

     private:
        const PIDDefinition& definition(std::int32_t lngPID) const;

        std::vector<PIDDefinition> items_;
        IntIndex index_;
    };

    IConfigurationReader& reader_;
    std::string strSiteID_;
    MessageHandler message_;
    Definitions definitions_;
    SiteSettings settings_;
};

}  // namespace quelm
