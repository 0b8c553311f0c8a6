#include "HostListModel.h"

#include <QHash>
#include <QStringList>
#include <algorithm>

#include "Logger.h"
#include "MainThread.h"

namespace ostv {

namespace HostRows {

QString sortKey(const Host& host) { return host.machineId.isEmpty() ? host.agentCode : host.machineId; }

QList<Host> merge(const QList<Host>& previous, QList<Host> fresh) {
    std::stable_sort(fresh.begin(), fresh.end(),
                     [](const Host& a, const Host& b) { return sortKey(a) < sortKey(b); });
    QHash<QString, bool> wasSelected;
    for (const Host& h : previous) wasSelected.insert(h.id, h.isSelected);
    for (Host& h : fresh) h.isSelected = wasSelected.value(h.id, false);
    return fresh;
}

LoadLabels loadLabels(const Host& host) {
    if (host.status != HostStatus::online) return {};
    return {QStringLiteral("CPU ") + host.cpuLoad,
            host.memLoad.isEmpty() ? QString() : QStringLiteral("MEM ") + host.memLoad};
}

QString statusColorText(HostStatus status) {
    switch (status) {
        case HostStatus::online: return QStringLiteral("#4ec9b0");
        case HostStatus::offline: return QStringLiteral("#888888");
        case HostStatus::connecting: return QStringLiteral("#ffbd2e");
    }
    return {};
}

std::optional<QColor> colorFromHex(const QString& text) {
    QString digits = text.trimmed();
    if (digits.startsWith(QLatin1Char('#'))) digits.remove(0, 1);
    if (digits.isEmpty()) return std::nullopt;
    bool ok = false;
    const qulonglong value = digits.toULongLong(&ok, 16);
    if (!ok) return std::nullopt;
    return QColor::fromRgbF(((value >> 16) & 0xff) / 255.0, ((value >> 8) & 0xff) / 255.0, (value & 0xff) / 255.0,
                            1.0);
}

std::optional<QString> osIconName(const QString& os) {
    if (os == QLatin1String("linux")) return QStringLiteral("os_linux");
    if (os == QLatin1String("darwin")) return QStringLiteral("os_apple");
    if (os == QLatin1String("windows")) return QStringLiteral("os_windows");
    return std::nullopt;
}

QString userCountText(int userCount) { return QString::number(userCount) + QStringLiteral(" 人"); }

QString osCaption(const Host& host) { return host.hostname.isEmpty() ? QString() : host.name; }

QString toolTip(const Host& host) {
    QStringList lines;
    auto add = [&](const QString& label, const QString& value) {
        if (!value.isEmpty()) lines << label + value;
    };
    add(QStringLiteral("主机名："), host.hostname);
    add(QStringLiteral("系统："), host.name);
    add(QStringLiteral("机器 ID："), host.machineId);
    add(QStringLiteral("配对码："), host.agentCode);
    return lines.join(QLatin1Char('\n'));
}

}  // namespace HostRows

HostListModel::HostListModel(QObject* parent) : QObject(parent) {
    fetch_ = [](FetchCompletion done) { AdminAPIClient::shared().fetchAgents(std::move(done)); };
}

HostListModel::~HostListModel() { stopRefreshing(); }

void HostListModel::startRefreshing(int intervalMs) {
    fetchAgents();
    stopRefreshing();
    refreshTimer_ = new QTimer(this);  // owned by the model: released with it, so it never outlives it
    refreshTimer_->setInterval(intervalMs);
    connect(refreshTimer_, &QTimer::timeout, this, &HostListModel::fetchAgents);
    refreshTimer_->start();
}

void HostListModel::stopRefreshing() {
    if (!refreshTimer_) return;
    refreshTimer_->stop();
    delete refreshTimer_;
    refreshTimer_ = nullptr;
}

void HostListModel::fetchAgents() {
    if (isFetching_) return;
    isFetching_ = true;
    QPointer<HostListModel> self(this);
    // The admin client may answer on any thread, or before fetch_ returns: the answer is always
    // handled later, on the main thread, and only if the list still exists.
    fetch_([self](AgentFetchResult result) {
        postToMain([self, result = std::move(result)]() {
            if (self) self->handleResult(result);
        });
    });
}

void HostListModel::handleResult(const AgentFetchResult& result) {
    isFetching_ = false;
    if (!result.ok()) {
        const AdminAPIError error = *result.error();
        Logger::error(("Admin API: " + error.description).toStdString());
        if (error.kind == AdminAPIErrorKind::unauthorized) emit unauthorized();
        return;  // other errors keep the rows; the next poll tries again
    }
    for (const Host& h : result.hosts()) {
        Logger::info(QStringLiteral("fetchAgents: id=%1 cpu=%2 mem=%3 users=%4")
                         .arg(h.id, h.cpuLoad, h.memLoad)
                         .arg(h.userCount)
                         .toStdString());
    }
    applyFetchedHosts(result.hosts());
}

void HostListModel::applyFetchedHosts(const QList<Host>& fresh) {
    hosts_ = HostRows::merge(hosts_, fresh);
    emit hostsReloaded();
}

std::optional<int> HostListModel::updateHost(const Host& host) {
    for (int i = 0; i < hosts_.size(); ++i) {
        if (hosts_[i].id != host.id) continue;
        hosts_[i] = host;
        emit hostChanged(i);
        return i;
    }
    return std::nullopt;
}

std::optional<int> HostListModel::updateHostResources(const QString& id, const QString& cpu, const QString& mem) {
    for (int i = 0; i < hosts_.size(); ++i) {
        if (hosts_[i].id != id) continue;
        hosts_[i].cpuLoad = cpu;
        hosts_[i].memLoad = mem;
        emit resourcesChanged(i);
        return i;
    }
    return std::nullopt;
}

std::optional<Host> HostListModel::findHost(const QString& byAgentCode) const {
    for (const Host& h : hosts_)
        if (h.agentCode == byAgentCode) return h;
    return std::nullopt;
}

void HostListModel::selectHost(int index) {
    for (int i = 0; i < hosts_.size(); ++i) hosts_[i].isSelected = (i == index);
    emit hostsReloaded();
}

}  // namespace ostv
