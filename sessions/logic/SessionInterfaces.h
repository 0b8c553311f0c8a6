#pragma once
// The narrow interfaces through which the session controller talks to the relay link, the terminal
// view and the resource panel, so that it runs (and is tested) without widgets or a network.
#include <QList>
#include <QString>
#include <cstdint>
#include <string>

#include "DomainRecords.h"
#include "Message.h"
#include "RelayLink.h"

namespace ostv {

// The terminal view as the session side sees it (TerminalView implements it).
class TerminalSurface {
public:
    virtual ~TerminalSurface() = default;
    virtual void createTab(int64_t ptyId, const QString& title) = 0;
    virtual void switchTab(int64_t ptyId) = 0;
    virtual void closeTab(int64_t ptyId) = 0;
    virtual void removeAllTabs() = 0;
    virtual void maskTab(int64_t ptyId, const QString& message) = 0;
    virtual bool isTabTerminated(int64_t ptyId) const = 0;
    virtual QList<int64_t> tabIds() const = 0;  // `tabPtyIds`, in tab order
    virtual void writeOutput(const std::string& base64, int64_t ptyId) = 0;
    virtual void clearScreen(int64_t ptyId, bool useActive) = 0;
    virtual void triggerResize(int64_t ptyId, bool useActive) = 0;
    virtual void focus() = 0;
    virtual void showFrozenOverlay() = 0;
    virtual void hideFrozenOverlay() = 0;
    // The empty-state placeholder of the terminal area with the given text.
    virtual void showEmptyState(const QString& text) = 0;
};

// The resource panel's session list as the session side sees it.
class SessionListSink {
public:
    virtual ~SessionListSink() = default;
    virtual void setUsers(const QList<User>& users, int limit) = 0;
    virtual void highlightSession(int64_t ptyId) = 0;
};

}  // namespace ostv
