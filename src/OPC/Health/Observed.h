#pragma once

// The libraries that the server works with, watched on their way: each stands before the real one, passes every call on
// and notes what became of it. The server's classes see no difference.

#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

#include "DB Interface Library/IDBIL.h"
#include "Messages/ILogWriter.h"
#include "OPC/Health/PlantHealth.h"
#include "base/RuntimeError.h"

namespace quelm::health {

class ObservedRealtimeDB final : public IRealtimeDB {
 public:
    ObservedRealtimeDB(IRealtimeDB& real, PlantHealth& health) : real_(real), health_(health) {}

    std::shared_ptr<const CurrentIOCollection> ReadCurrentIO(std::string_view strSiteID,
                                                             bool blnUseImplicitChannels) override {
        return watched(strSiteID, PlantHealth::Source::channels,
                       [&] { return real_.ReadCurrentIO(strSiteID, blnUseImplicitChannels); });
    }
    std::optional<MessageRecord> GetMessageRecord(std::string_view strSiteID, std::string_view strMsgID) override {
        return real_.GetMessageRecord(strSiteID, strMsgID);
    }
    bool InsertMessage(std::string& strMsgID, std::string_view strSiteID, std::string_view strMsgType,
                       std::string_view strMsgData, std::string_view strUnused1, std::string_view strUnused2,
                       std::string_view strDescription) override {
        return real_.InsertMessage(strMsgID, strSiteID, strMsgType, strMsgData, strUnused1, strUnused2, strDescription);
    }
    void ReadParameterValues(std::string_view strSiteID, std::vector<ParameterValue>& out) override {
        watched(strSiteID, PlantHealth::Source::parameters, [&] {
            real_.ReadParameterValues(strSiteID, out);
            return 0;
        });
    }

 private:
    template <class Read>
    std::invoke_result_t<Read> watched(std::string_view siteID, PlantHealth::Source source, Read&& read) {
        const Stopwatch watch;
        try {
            auto result = read();
            health_.snapshotRead(siteID, source, watch.milliseconds());
            return result;
        } catch (...) {
            health_.snapshotFailed(siteID, source, currentError().text());
            throw;
        }
    }

    IRealtimeDB& real_;
    PlantHealth& health_;
};

class ObservedDBIL final : public IDBIL {
 public:
    // health outlives it.
    ObservedDBIL(std::shared_ptr<IDBIL> real, PlantHealth& health)
        : real_(std::move(real)), health_(health), realtimeDB_(real_->RealtimeDB(), health) {}

    bool Initialize(std::string_view strExecutableName) override { return real_->Initialize(strExecutableName); }
    bool SetupSite(std::string_view strSiteID, std::string_view strConnection1, std::string_view strConnection2,
                   std::string_view strConnection3, std::string_view strConnection4, std::string_view strConnection5,
                   bool blnUse, bool blnReserved) override {
        const bool blnOK = real_->SetupSite(strSiteID, strConnection1, strConnection2, strConnection3, strConnection4,
                                            strConnection5, blnUse, blnReserved);
        if (blnOK) {
            health_.siteIsKnown(strSiteID);
        }
        return blnOK;
    }
    bool TestConnections(std::string_view strSiteID, bool blnConnection1, bool blnConnection2, bool blnConnection3,
                         bool blnConnection4, bool blnConnection5, bool blnReport) override {
        return real_->TestConnections(strSiteID, blnConnection1, blnConnection2, blnConnection3, blnConnection4,
                                      blnConnection5, blnReport);
    }
    IConfigurationReader& ConfigurationReader() override { return real_->ConfigurationReader(); }
    IRealtimeDB& RealtimeDB() override { return realtimeDB_; }
    void Terminate() override { real_->Terminate(); }

 private:
    std::shared_ptr<IDBIL> real_;
    PlantHealth& health_;
    ObservedRealtimeDB realtimeDB_;
};

// The lines of the log as those who ask for the last ones get them.
class ObservedLog final : public ILogWriter {
 public:
    // typeName: how the type of the next line is called, by which its text begins. Outlives it like health.
    ObservedLog(std::unique_ptr<ILogWriter> real, PlantHealth& health, const std::string& typeName)
        : real_(std::move(real)), health_(health), typeName_(typeName) {}

    bool Open(std::string_view strFilePath, std::string_view strTitle, bool blnOverwrite, bool blnTimeStamps) override {
        return real_->Open(strFilePath, strTitle, blnOverwrite, blnTimeStamps);
    }
    void WriteEntry(std::string_view strText, bool blnFlag = false) override {
        real_->WriteEntry(strText, blnFlag);
        const bool isTyped = strText.size() > typeName_.size() && strText.starts_with(typeName_) &&
                             strText[typeName_.size()] == ' ' && !typeName_.empty();
        health_.messageRaised(isTyped ? typeName_ : "", isTyped ? strText.substr(typeName_.size() + 1) : strText);
    }
    void CollectLines(bool blnOn) override { real_->CollectLines(blnOn); }
    void Close() override { real_->Close(); }

 private:
    std::unique_ptr<ILogWriter> real_;
    PlantHealth& health_;
    const std::string& typeName_;
};

}  // namespace quelm::health
