#pragma once
#include <QLabel>
#include <QString>
#include <QWidget>
#include <optional>

namespace ostv {

// What the status bar shows about the relay link.
struct ConnectionStatus {
    enum class Kind { connected, reconnecting, idle, connecting, disconnected };
    Kind kind = Kind::idle;
    std::optional<QString> agentName;  // connected
    int attempt = 0;                   // reconnecting

    static ConnectionStatus connected(std::optional<QString> name = std::nullopt) { return {Kind::connected, std::move(name), 0}; }
    static ConnectionStatus reconnecting(int attempt) { return {Kind::reconnecting, std::nullopt, attempt}; }
    static ConnectionStatus idle() { return {Kind::idle, std::nullopt, 0}; }
    static ConnectionStatus connecting() { return {Kind::connecting, std::nullopt, 0}; }
    static ConnectionStatus disconnected() { return {Kind::disconnected, std::nullopt, 0}; }
};

class StatusBarView : public QWidget {
    Q_OBJECT
public:
    explicit StatusBarView(QWidget* parent = nullptr);
    void setStatus(const ConnectionStatus& status);
    const ConnectionStatus& currentStatus() const { return currentStatus_; }
    QLabel* iconLabel() const { return iconLabel_; }
    QLabel* textLabel() const { return textLabel_; }
    QLabel* rightLabel() const { return rightLabel_; }
    void updateLayer();

protected:
    void paintEvent(QPaintEvent*) override;
    void changeEvent(QEvent*) override;

private:
    QLabel* iconLabel_;
    QLabel* textLabel_;
    QLabel* rightLabel_;
    ConnectionStatus currentStatus_;
    QColor iconColour_;
    QColor textColour_;
};

}  // namespace ostv
