#pragma once
// The host list without its widgets: the rows, their order and selection across polls, the poll
// itself (one fetch at a time, every five seconds) and the display rules of a row. HostListView
// shows what this holds; the tests drive it without a screen.
#include <QColor>
#include <QList>
#include <QObject>
#include <QPointer>
#include <QString>
#include <QTimer>
#include <functional>
#include <optional>

#include "AdminAPIClient.h"
#include "DomainRecords.h"

namespace ostv {

namespace HostRows {

// The order key of a row: the machine id when it has one, else the agent code.
QString sortKey(const Host& host);

// The rows after a poll: the fresh list sorted ascending by sortKey (plain string order, stable for
// equal keys), each host selected exactly when the row with the same id was selected before.
QList<Host> merge(const QList<Host>& previous, QList<Host> fresh);

// The two load labels of a row. Hosts that are not online show neither.
struct LoadLabels {
    QString cpu;
    QString mem;
    bool operator==(const LoadLabels&) const = default;
};
LoadLabels loadLabels(const Host& host);

// "#4ec9b0" online, "#888888" offline, "#ffbd2e" connecting.
QString statusColorText(HostStatus status);
// "#rrggbb" (or any hexadecimal number) -> opaque colour from bits 16-23, 8-15, 0-7; none when the
// text does not parse.
std::optional<QColor> colorFromHex(const QString& text);

// "linux" -> "os_linux", "darwin" -> "os_apple", "windows" -> "os_windows"; none for anything else.
std::optional<QString> osIconName(const QString& os);

// decimal user count + " 人"
QString userCountText(int userCount);

// A row's title is Host::title(): the host name when the list gives one, else the system name. The
// system name then stays in the row as a caption under it; without a host name there is none.
QString osCaption(const Host& host);
// The row's tool tip: host name, system, machine id and pairing code, one per line, each line only
// when there is something to say.
QString toolTip(const Host& host);

}  // namespace HostRows

// The rows of the host list and the poll that refreshes them. Main thread only; the fetch's
// completion may arrive on any thread and is moved to the main thread before anything is touched.
class HostListModel : public QObject {
    Q_OBJECT
public:
    using FetchCompletion = std::function<void(AgentFetchResult)>;
    using FetchFunction = std::function<void(FetchCompletion)>;

    explicit HostListModel(QObject* parent = nullptr);
    ~HostListModel() override;

    // The admin client's agent list by default; tests inject their own.
    void setFetchFunction(FetchFunction fetch) { fetch_ = std::move(fetch); }

    // Fetches at once, then every intervalMs; a second call replaces the earlier timer.
    void startRefreshing(int intervalMs = 5000);
    void stopRefreshing();
    bool isRefreshing() const { return refreshTimer_ != nullptr; }

    // One poll. Skipped (not queued) while the previous one is still open.
    void fetchAgents();
    bool isFetching() const { return isFetching_; }

    const QList<Host>& hosts() const { return hosts_; }
    // Replaces the rows as a poll would (sorted, selection carried over) and announces a reload.
    void applyFetchedHosts(const QList<Host>& fresh);

    // Replace the row with host.id; answers its index, none (and nothing changes) for an unknown id.
    std::optional<int> updateHost(const Host& host);
    // Sets the loads of the row with that id; answers its index.
    std::optional<int> updateHostResources(const QString& id, const QString& cpu, const QString& mem);
    // The first row with that agent code.
    std::optional<Host> findHost(const QString& byAgentCode) const;
    // Exactly that row selected, every other row unselected (an index outside the rows unselects all).
    void selectHost(int index);

signals:
    void hostsReloaded();          // the whole list changed
    void hostChanged(int row);     // one row changed in place
    void resourcesChanged(int row);  // only the loads of one row changed
    void unauthorized();           // the admin server no longer accepts our token

private:
    void handleResult(const AgentFetchResult& result);

    QList<Host> hosts_;
    bool isFetching_ = false;
    FetchFunction fetch_;
    QTimer* refreshTimer_ = nullptr;
};

}  // namespace ostv
