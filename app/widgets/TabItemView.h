#pragma once
#include <QGraphicsOpacityEffect>
#include <QLabel>
#include <QPointer>
#include <QPropertyAnimation>
#include <QToolButton>
#include <QWidget>
#include <cstdint>
#include <functional>

namespace ostv {

// One tab of the terminal tab strip.
class TabItemView : public QWidget {
    Q_OBJECT
public:
    enum class State { active, inactive, terminated };

    TabItemView(int64_t ptyId, const QString& title, QWidget* parent = nullptr);

    std::function<void(int64_t)> onSelect;
    std::function<void(int64_t)> onClose;

    int64_t ptyId() const { return ptyId_; }
    State state() const { return currentState_; }
    void setState(State s);
    QString title() const;
    void setTitle(const QString& title);
    bool isHovered() const { return isHovered_; }
    // The close button's target visibility (its opacity animates there over 0.15 s).
    bool closeButtonShown() const { return closeShown_; }
    QToolButton* closeButton() const { return closeButton_; }
    void applyStyle();
    QSize sizeHint() const override;  // wide enough for the title, within 60..200

protected:
    void paintEvent(QPaintEvent*) override;
    void mousePressEvent(QMouseEvent*) override;
    void enterEvent(QEnterEvent*) override;
    void leaveEvent(QEvent*) override;
    void changeEvent(QEvent*) override;
    void resizeEvent(QResizeEvent*) override;

private:
    void setCloseShown(bool shown);
    void elideTitle();

    int64_t ptyId_;
    QString fullTitle_;
    QLabel* titleLabel_ = nullptr;
    QToolButton* closeButton_ = nullptr;
    QGraphicsOpacityEffect* closeOpacity_ = nullptr;
    QPointer<QPropertyAnimation> fade_;
    State currentState_ = State::inactive;
    bool isHovered_ = false;
    bool closeShown_ = false;
    QColor background_;
};

}  // namespace ostv
