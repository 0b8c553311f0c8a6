#pragma once
// One row of the host list: status dot, system glyph, title, status text, user count and the two
// load labels; with a host name the title is that name and the system name stays as a small caption
// before the status text. The tool tip tells host name, system, machine id and pairing code.
// Selection and hover are drawn by the cell itself.
#include <QLabel>
#include <QWidget>

#include "DomainRecords.h"

namespace ostv {

// A filled circle in one colour.
class StatusDot : public QWidget {
    Q_OBJECT
public:
    explicit StatusDot(QWidget* parent = nullptr);
    void setColor(const QColor& c);
    QColor color() const { return color_; }

protected:
    void paintEvent(QPaintEvent*) override;

private:
    QColor color_;
};

class HostCell : public QWidget {
    Q_OBJECT
public:
    static constexpr int rowHeight = 50;

    explicit HostCell(QWidget* parent = nullptr);

    // Shows everything of host.
    void configure(const Host& host);
    // Refreshes only the two load labels.
    void updateResources(const Host& host);

    const Host& host() const { return host_; }
    bool isHovered() const { return isHovered_; }

    StatusDot* statusDot;
    QLabel* osIconView;
    QLabel* nameLabel;
    QLabel* osLabel;  // the system name under a host name; hidden without one
    QLabel* statusLabel;
    QLabel* userCountLabel;
    QLabel* cpuLabel;
    QLabel* memLabel;

protected:
    void paintEvent(QPaintEvent*) override;
    void enterEvent(QEnterEvent*) override;
    void leaveEvent(QEvent*) override;
    void changeEvent(QEvent*) override;

private:
    void applyColors();

    Host host_;
    bool isHovered_ = false;
};

}  // namespace ostv
