#pragma once
#include <QString>
#include <cstdint>

#include "Message.h"

namespace ostv {

// The relay link as the session side sees it (the connection manager implements it).
class RelayLink {
public:
    virtual ~RelayLink() = default;
    virtual bool isLinkConnected() const = 0;       // state is `connected`
    virtual QString agentHomeDir() const = 0;       // home directory from "paired", empty when unknown
    virtual void send(const Message& message) = 0;  // silently nothing when there is no transport
    virtual void closePty(int64_t ptyId) = 0;       // "CLOSE_PTY" while connected
    // Back-pressure from the terminal page: while paused the link stops reading from the relay, so
    // QUIC flow control holds the agent back instead of memory filling up here.
    virtual void setReceivePaused(bool paused) = 0;
    // While narrowed the link lets the relay send only a little ahead of what it has read: the page is
    // behind, and whatever is in flight arrives before the next echo.
    virtual void setReceiveNarrowed(bool) {}
};

}  // namespace ostv
