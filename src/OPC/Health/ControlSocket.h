#pragma once

// The socket over which the operators' tools ask the server how it is: a line for a line, on the network's loop. What a
// peer can make of it is bounded, whatever it sends or does not take.

#include <memory>
#include <string>

#include "OPC/Health/Answers.h"
#include "loop/AsioLoop.h"

namespace quelm::health {

class ControlSocket {
 public:
    // Both outlive it.
    ControlSocket(AsioLoop& loop, Answers& answers);
    ~ControlSocket();
    ControlSocket(const ControlSocket&) = delete;
    ControlSocket& operator=(const ControlSocket&) = delete;

    // Before the loop runs, or on its thread. Gives why nobody can ask, in one line; "": all is well. One that another
    // server has left behind is replaced; one at which a server answers is not.
    std::string open(const std::string& path);
    // Lets go of all who ask, and removes the socket.
    void close();

 private:
    class Connection;
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

}  // namespace quelm::health
