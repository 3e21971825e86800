#pragma once

// Reads a site's configuration database: item definitions, channels, parameters and settings.

#include "DB Interface Library/IDBIL.h"
#include "DB Interface Library/ProblemSink.h"
#include "DB Interface Library/SiteTable.h"

namespace quelm {

class ConfigurationReader final : public IConfigurationReader {
 public:
    // sites must outlive the reader.
    ConfigurationReader(SiteTable& sites, ProblemSink problems) : sites_(sites), problems_(std::move(problems)) {}

    std::shared_ptr<const OPCDefCollection> LoadOPCDefs(std::string_view strSiteID) override;
    std::shared_ptr<const ChannelDefCollection> LoadChannelNames(std::string_view strSiteID) override;
    std::shared_ptr<const ChannelDefCollection> LoadChannelDefs(std::string_view strSiteID) override;
    std::vector<PIDDefinition> LoadPIDDefinitions(std::string_view strSiteID, std::int32_t lngDAHSID) override;
    SiteSettings LoadSiteSettings(std::string_view strSiteID, std::int32_t lngDAHSID) override;

 private:
    SqlWorker& worker(std::string_view strSiteID) { return *sites_.connection(strSiteID, SiteTable::configuration); }

    SiteTable& sites_;
    ProblemSink problems_;
};

}  // namespace quelm
