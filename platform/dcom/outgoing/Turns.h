#pragma once

// Bounds the connections that are being opened at the same time, of all and of each client: addresses where nobody
// answers must not take all that this machine can open, nor one client's keep the others waiting for long.

#include <cstddef>
#include <functional>
#include <list>
#include <map>
#include <string>

namespace quelm::dcom::outgoing {

class Turns {
 public:
    static constexpr std::size_t most = 64;
    static constexpr std::size_t mostOfClient = 8;

    // Held while a connection is being opened, or waited for.
    class Turn {
     public:
        Turn(Turns& turns, std::string client, std::function<void()> begin);
        ~Turn();
        Turn(const Turn&) = delete;
        Turn& operator=(const Turn&) = delete;

     private:
        friend class Turns;
        Turns& turns_;
        std::string client_;
        std::function<void()> begin_;  // empty once the turn has come
    };

 private:
    bool hasRoomFor(const std::string& client) const;
    void take(Turn& turn);
    void handOn();

    std::size_t taken_ = 0;
    std::map<std::string, std::size_t> ofClient_;
    std::list<Turn*> waiting_;
};

}  // namespace quelm::dcom::outgoing
