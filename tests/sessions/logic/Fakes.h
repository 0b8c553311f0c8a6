#pragma once
// Test doubles at the session controller's interface boundary: they record what the controller asks.
#include <QObject>
#include <QStringList>
#include <algorithm>

#include "SessionController.h"

namespace ostv::test {

class FakeLink : public QObject, public RelayLink {
public:
    bool connected = true;
    QString home = QStringLiteral("/home/u");
    std::vector<Message> sent;
    std::vector<int64_t> closed;
    bool paused = false;

    bool isLinkConnected() const override { return connected; }
    QString agentHomeDir() const override { return home; }
    void send(const Message& m) override { sent.push_back(m); }
    void closePty(int64_t id) override { if (connected) closed.push_back(id); }
    void setReceivePaused(bool p) override { paused = p; }

    std::vector<Message> ofType(const std::string& type) const {
        std::vector<Message> out;
        for (const auto& m : sent) if (m.type == type) out.push_back(m);
        return out;
    }
};

class FakeTerminal : public QObject, public TerminalSurface {
public:
    QList<int64_t> tabs;
    QStringList calls;
    std::map<int64_t, QString> masks;
    std::vector<std::pair<std::string, int64_t>> written;
    bool overlayShown = true;
    QString emptyState;

    void createTab(int64_t id, const QString& title) override {
        if (!tabs.contains(id)) tabs.push_back(id);
        calls << QStringLiteral("create %1 %2").arg(id).arg(title);
    }
    void switchTab(int64_t id) override { calls << QStringLiteral("switch %1").arg(id); }
    void closeTab(int64_t id) override { tabs.removeAll(id); calls << QStringLiteral("close %1").arg(id); }
    void removeAllTabs() override { tabs.clear(); calls << "removeAll"; }
    void maskTab(int64_t id, const QString& m) override { masks[id] = m; }
    bool isTabTerminated(int64_t id) const override { return masks.count(id) > 0; }
    QList<int64_t> tabIds() const override { return tabs; }
    void writeOutput(const std::string& b64, int64_t id) override { written.emplace_back(b64, id); }
    void clearScreen(int64_t, bool) override {}
    void triggerResize(int64_t id, bool active) override { calls << QStringLiteral("resize %1 %2").arg(id).arg(active); }
    void focus() override { calls << "focus"; }
    void showFrozenOverlay() override { overlayShown = true; }
    void hideFrozenOverlay() override { overlayShown = false; }
    void showEmptyState(const QString& text) override { emptyState = text; }
};

class FakeSessionList : public QObject, public SessionListSink {
public:
    QList<User> users;
    int limit = -1;
    int64_t highlighted = -1;
    void setUsers(const QList<User>& u, int l) override { users = u; limit = l; }
    void highlightSession(int64_t id) override { highlighted = id; }
};

class FakeErrors : public QObject, public ErrorPresenter {
public:
    QStringList shown;
    void showError(const QString& t) override { shown << t; }
};

}  // namespace ostv::test
