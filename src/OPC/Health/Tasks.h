#pragma once

// The answers that there are, each as a task that is done in turns.

#include <array>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "OPC/Health/Answers.h"
#include "OPC/Health/ItemSites.h"
#include "OPC/Health/Words.h"

namespace quelm::health {

enum class Quality : std::uint8_t { good, uncertain, bad };
inline constexpr std::array<std::string_view, 3> qualityNames{"good", "uncertain", "bad"};
Quality qualityOf(std::uint16_t word);

class StatusTask final : public Task {
 public:
    StatusTask(std::weak_ptr<Asker> asker, const Sources& sources, ItemSites& sites)
        : Task(std::move(asker)), sources_(sources), sites_(sites) {}
    bool goOn() override;

 private:
    using Counts = std::array<std::size_t, qualityNames.size()>;
    Json siteOf(const SiteHealth& health) const;

    const Sources& sources_;
    ItemSites& sites_;
    bool isPrepared_ = false;
    std::size_t next_ = 0;
    std::vector<Counts> counts_;  // by site
};

class ClientsTask final : public Task {
 public:
    ClientsTask(std::weak_ptr<Asker> asker, const Sources& sources) : Task(std::move(asker)), sources_(sources) {}
    bool goOn() override;

 private:
    void begin(const Client& client);
    bool addGroups(const Client& client, std::size_t& work);
    void finish(bool isMore);

    const Sources& sources_;
    std::uint64_t lastClient_ = 0;
    std::uint64_t current_ = 0;  // the client whose groups are being listed; 0: none
    std::uint32_t lastGroup_ = 0;
    Json listed_;
    std::size_t clients_ = 0;
    std::string text_ = "{\"clients\":[";
};

struct ItemQuestion {
    std::string site;  // "": of any
    std::string name;  // what the item ID contains, without regard to case
    std::optional<Quality> quality;
    std::size_t from = 0;
    std::size_t count = 0;
};

class ItemsTask final : public Task {
 public:
    ItemsTask(std::weak_ptr<Asker> asker, const Sources& sources, ItemSites& sites, ItemQuestion question);
    bool goOn() override;

 private:
    bool matches(std::size_t number, const SLIKTag& tag) const;
    Json describe(std::size_t number, const SLIKTag& tag) const;

    const Sources& sources_;
    ItemSites& sites_;
    ItemQuestion question_;  // its name in folded case
    bool isPrepared_ = false;
    std::size_t next_ = 0;
    std::size_t total_ = 0;
    Json found_ = Json::array();
};

class ReloadTask final : public Task {
 public:
    ReloadTask(std::weak_ptr<Asker> asker, const Sources& sources)
        : Task(asker), asker_(std::move(asker)), sources_(sources) {}
    bool goOn() override;

 private:
    std::weak_ptr<Asker> asker_;
    const Sources& sources_;
};

std::string messagesAfter(const PlantHealth& plant, std::uint64_t number);

}  // namespace quelm::health
