#pragma once

// A control with a few items, a recorder of its events, and a client's server object on a clock that stands still.

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "Codes.h"
#include "base/TimeSource.h"
#include "loop/VirtualLoop.h"
#include "opcda/Server.h"
#include "slikda/SLIKServer.h"

namespace quelm::opcda {

// Writes every event down; answers a device read as the server host does, by copying the cache.
class RecordingEvents : public ISLIKServerEvents {
 public:
    explicit RecordingEvents(SLIKServer& control) : control_(&control) {}

    void SLIKServer1_OnClientDisconnect(std::int32_t lngRemainingClients) override {
        add("disconnect " + std::to_string(lngRemainingClients) + (control_->InUse() ? " in use" : ""));
    }
    void SLIKServer1_OnRead(std::int32_t lngCount, const std::vector<ISLIKRequestedItem*>& objItems,
                            std::int32_t& lngError) override {
        std::string line = "read " + std::to_string(lngCount);
        for (std::size_t i = 0; i < objItems.size(); ++i) {
            line += " " + objItems[i]->Name();
            if (i < answered) {
                const ISLIKTag& tag = control_->SLIKTags().Item(objItems[i]->Name());
                objItems[i]->SetVQT(tag.Value(), tag.Quality(), tag.Timestamp());
            }
        }
        add(line);
        lngError = readError;
    }
    void SLIKServer1_OnWrite(std::int32_t lngCount, std::int32_t& lngError) override {
        add("write " + std::to_string(lngCount));
        lngError = asNumber(E_FAIL);
    }

    std::vector<std::string> log;
    std::size_t answered = SIZE_MAX;  // items of a read that get a value
    std::int32_t readError = 0;
    bool throws = false;

 private:
    void add(const std::string& line) {
        log.push_back(line);
        if (throws) {
            throw RuntimeError(errors::overflow);
        }
    }
    SLIKServer* control_;
};

// One item of a read as the wire would take it.
struct Seen {
    HResult error = S_OK;
    std::uint32_t clientHandle = 0;
    std::uint16_t quality = 0;
    VarType type = VT_EMPTY;
    double number = 0;  // of a numeric type
    bool operator==(const Seen&) const = default;
    friend void PrintTo(const Seen& seen, std::ostream* out) {
        *out << std::hex << "{error " << seen.error << " client " << seen.clientHandle << " quality " << seen.quality
             << " type " << seen.type << " number " << seen.number << "}";
    }
};

class Recorder {
 public:
    void operator()(const ItemReading& reading) {
        const OpcValue& value = reading.value;
        double number = value.type == VT_R4 ? static_cast<double>(value.single) : value.real;
        if (value.type != VT_R4 && value.type != VT_R8) {
            number = value.type == VT_EMPTY || value.type == VT_BSTR ? 0 : static_cast<double>(value.integer);
        }
        seen.push_back({reading.error, reading.clientHandle, reading.quality, value.type, number});
        fileTimes.push_back(reading.fileTime);
    }
    std::vector<Seen> seen;
    std::vector<std::int64_t> fileTimes;
};

// The values of a callback as texts.
class WrittenValues final : public IValueWriter {
 public:
    void begin(ValueForm /*form*/) override { texts.clear(); }
    void add(const OpcValue& value) override { texts.push_back(textOf(value)); }
    std::size_t size() const override { return texts.size() * 30; }

    static std::string textOf(const OpcValue& value) {
        switch (value.type) {
            case VT_EMPTY:
                return "-";
            case VT_R4:
                return fmt::format("{}", value.single);
            case VT_R8:
            case VT_DATE:
                return fmt::format("{}", value.real);
            case VT_BSTR:
                return fmt::format("'{}'", value.text);
            default:
                return fmt::format("{}", value.integer);
        }
    }

    std::vector<std::string> texts;
};

class OpcDaTest : public testing::Test {
 protected:
    OpcDaTest() {
        control.SetEvents(&events);
        add("Plant.Stack1.NOx", Variant(12.5F));
        add("Plant.Stack1.Count", Variant(std::int32_t{70000}));
        add("Plant.Stack1.State", Variant("Running"));
        add("Plant.Stack2.NOx", Variant(-1.0F));
        add("Status", Variant(true));
    }

    ISLIKTag& add(std::string_view name, const Variant& value, std::int32_t rights = 1) {
        return control.SLIKTags().Add(name, rights, value, 0xC0, noon);
    }

    std::shared_ptr<Group> makeGroup(Server& server, bool active = true) {
        std::shared_ptr<Group> group;
        EXPECT_EQ(server.addGroup({"", active, 1000, 7, std::nullopt, std::nullopt, 0}, group), S_OK);
        return group;
    }

    // Client handles count from 100.
    std::vector<std::uint32_t> addItems(Group& group, const std::vector<std::string_view>& names,
                                        VarType type = VT_EMPTY) {
        std::vector<ItemDefinition> definitions;
        for (const std::string_view name : names) {
            definitions.push_back({name, true, 100 + static_cast<std::uint32_t>(definitions.size()), type});
        }
        std::vector<ItemResult> results;
        group.addItems(definitions, results);
        std::vector<std::uint32_t> handles;
        for (const ItemResult& result : results) {
            handles.push_back(result.serverHandle);
        }
        return handles;
    }

    const Date noon = makeDate(2026, 3, 5, 12);
    ManualTimeSource clock{noon, 60};
    ScopedTimeSource inForce{clock};
    // Nothing crosses between the loops before the server starts: till then all is done at once.
    VirtualLoop plant;
    VirtualLoop loop;
    SLIKServer control{plant, loop};
    RecordingEvents events{control};
    WrittenValues callbackValues;
    Application application{control.network(), loop, callbackValues};
};

}  // namespace quelm::opcda
